#pragma once

#include <atomic>
#include <memory>
#include <vector>

#include "platform/av/AudioNode.h"
#include "platform/av/AudioTapBlock.h"
#include "platform/av/AudioUnit.h"
#include "platform/hal/AudioBufferList.h"
#include "platform/hal/AudioHardwareConstants.h"

namespace bw {

class AudioHardware;

namespace detail {
class TapSlot;
}

/// The input side of an engine: what one input device captures, delivered to a tap. It reads the
/// system's default input device unless its unit is pointed at another.
///
/// Thread: the controlling thread, engine stopped, except `deliver` (the engine's input queue).
class AudioInputNode : public AudioNode, private AudioUnit {
public:
    explicit AudioInputNode(std::shared_ptr<AudioHardware> hardware);
    ~AudioInputNode() override;

    /// The unit that selects the device; null when the engine has no audio hardware.
    AudioUnit* audioUnit();

    /// The device's input format as the tap delivers it: standard float at the device's rate and
    /// channel count. Rate and channel count are 0 when the device or its format can't be read.
    /// Read afresh from the device at each call.
    AudioFormat inputFormatForBus(std::uint32_t bus) const;

    /// Calls `block` with what the device captures, in buffers of `bufferSize` frames of `format`
    /// (its rate and channels must be the device's). False for a bus other than 0 or a second tap.
    bool installTap(std::uint32_t bus, FrameCount bufferSize, const AudioFormat& format,
                    AudioTapBlock block, AudioTapDropHandler onDrop = {});

    /// After it returns no block call starts. Harmless without a tap.
    void removeTap(std::uint32_t bus);

    bool hasTap() const;

    /// The chosen device, or the default input device; 0 when there is none.
    AudioDeviceID device() const;

    /// For the engine's input queue: converts one IO cycle of the device's input (in `format`) to
    /// standard float and hands it to the tap.
    void deliver(const AudioBufferList& input, const AudioFormat& format);

protected:
    std::uint32_t maximumInputs() const override { return 0; }
    bool prepareRender(FrameCount) override { return false; }
    void render(float* const*, FrameCount) override {}

private:
    OSStatus setProperty(std::uint32_t propertyID, std::uint32_t scope, std::uint32_t element,
                         const void* data, std::uint32_t size) override;

    std::shared_ptr<AudioHardware> hardware_;
    AudioDeviceID device_ = 0;
    std::unique_ptr<detail::TapSlot> tap_;
    std::vector<std::vector<float>> scratch_;
    std::vector<float*> scratchPointers_;
};

}  // namespace bw
