#pragma once

#include <atomic>
#include <memory>
#include <vector>

#include "platform/av/AudioNode.h"
#include "platform/av/AudioTapBlock.h"

namespace bw {

namespace detail {
class BusConverter;
class TapSlot;
}  // namespace detail

/// Sums any number of inputs. Each input bus keeps its own format; the mixer converts its sample
/// rate and channel count to the mixer's output format before summing. `outputVolume` scales the
/// sum, and a tap sees the mixer's output.
///
/// Thread: `setOutputVolume` from any thread. `installTap`/`removeTap` from the controlling thread,
/// while the engine runs or not.
class AudioMixerNode : public AudioNode {
public:
    AudioMixerNode();
    ~AudioMixerNode() override;

    /// Linear, 0 to 1; 0 silences what leaves the mixer while rendering goes on.
    void setOutputVolume(float volume);
    float outputVolume() const { return outputVolume_.load(); }

    /// The bus the next connection to this mixer takes.
    std::uint32_t nextAvailableInputBus() const { return numberOfInputs(); }

    /// Calls `block` off the render thread with the mixer's output, in buffers of `bufferSize`
    /// frames in the standard format of `format`'s rate and channel count. Only bus 0 exists; false
    /// for another bus, when a tap is installed already, or when `format` doesn't match a known
    /// output format in rate and channel count.
    bool installTap(std::uint32_t bus, FrameCount bufferSize, const AudioFormat& format,
                    AudioTapBlock block, AudioTapDropHandler onDrop = {});

    /// Removes the tap. After it returns no block call starts. Harmless without a tap.
    void removeTap(std::uint32_t bus);

    /// Frames lost because a tap's thread fell behind, over every tap removed so far.
    std::uint64_t tapDroppedFrames() const { return tapDroppedFrames_.load(); }

protected:
    std::uint32_t maximumInputs() const override { return 0xFFFFFFFFu; }
    bool prepareRender(FrameCount maxFrames) override;
    void render(float* const* output, FrameCount frames) override;

private:
    std::atomic<float> outputVolume_{1.0f};
    std::vector<std::unique_ptr<detail::BusConverter>> converters_;
    std::vector<std::vector<float>> scratch_;
    std::vector<float*> scratchPointers_;
    std::unique_ptr<detail::TapSlot> tap_;
    std::atomic<std::uint64_t> tapDroppedFrames_{0};
};

}  // namespace bw
