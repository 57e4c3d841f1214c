#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "capture/LossReport.h"
#include "capture/OverloadWatch.h"
#include "engine/Capture.h"
#include "platform/av/AudioEngine.h"
#include "platform/hal/AudioHardware.h"

namespace bw {

/// Records one input device through an audio engine of its own, whose input node reads that
/// device; buffers arrive at the device's own rate and channel count (the recording's graph
/// converts them). Several microphones run side by side, each with its own engine.
///
/// Owner: shared (`std::make_shared`); the tap holds it weakly. Thread: `start` and `stop` on the
/// engine's control queue; the handler runs on the input node's tap thread, outside the lock.
class MicrophoneCapture : public Capture, public std::enable_shared_from_this<MicrophoneCapture> {
public:
    static constexpr FrameCount kTapBufferSize = 2048;

    /// Touches no device.
    MicrophoneCapture(std::string deviceUID, std::shared_ptr<AudioHardware> hardware);
    ~MicrophoneCapture() override;

    /// Finds the device among the current input devices, points the input node at it, reads its
    /// format (only after that), taps it and starts the engine. Fails with a CoreAudioError, or
    /// the engine's own error (the tap is removed again then).
    Expected<void, ErrorRef> start() override;
    std::optional<AudioFormat> format() const override { return format_; }
    void setBufferHandler(BufferHandler handler) override;
    /// Removes the tap and stops the engine when started; otherwise does nothing.
    void stop() override;

    const std::string& deviceUID() const { return deviceUID_; }

    void setFailureHandler(FailureCallback handler) override;

private:
    void deliver(std::shared_ptr<PCMBuffer> buffer);

    const std::string deviceUID_;
    std::shared_ptr<AudioHardware> hardware_;
    std::unique_ptr<AudioEngine> engine_;
    bool started_ = false;
    std::optional<AudioFormat> format_;
    std::mutex bufferHandlerLock_;  // guards the handler
    BufferHandler storedBufferHandler_;
    LossReport lossReport_;
    std::unique_ptr<OverloadWatch> overloadWatch_;  // from start to stop
    std::shared_ptr<SerialQueue> watchQueue_;
};

}  // namespace bw
