#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "capture/LossReport.h"
#include "capture/OverloadWatch.h"
#include "capture/TapTarget.h"
#include "engine/Capture.h"
#include "platform/av/AudioFormat.h"
#include "platform/dispatch/SerialQueue.h"
#include "platform/hal/AudioHardware.h"
#include "platform/workspace/Workspace.h"

namespace bw {

/// Turns the whole system's sound, or one application's, into float buffers: a process tap, a
/// private aggregate device holding it (clocked by the default output device of the moment) and
/// an IO proc on that device. An application's tap follows its helper processes as they come and
/// go: each change of the process list rewrites the tap's member list. An application with a bundle
/// ID is followed through a relaunch: once its processes are gone, a new process of the same
/// application takes their place in the tap.
///
/// Owner: shared (`std::make_shared`); the IO proc and the listener hold it weakly. Thread: `start`
/// and `stop` on the engine's control queue, never together; the IO proc and the listener run on
/// `queue` ("tap-io"), one at a time; the handler runs there, outside both locks. Each cycle
/// allocates one buffer and copies the samples into it, off the hardware's realtime thread.
class ProcessTapCapture : public Capture, public std::enable_shared_from_this<ProcessTapCapture> {
public:
    static constexpr const char* kQueueLabel = "com.tallowfields.BrightwaveRecord.tap-io";
    static constexpr const char* kTapName = "BrightwaveRecord Tap";
    static constexpr const char* kDeviceName = "BrightwaveRecord Capture";
    static constexpr const char* kDeviceUIDPrefix = "BrightwaveRecord-";

    /// Touches no audio object.
    ProcessTapCapture(TapTarget target, bool muteTappedAudio,
                      std::shared_ptr<AudioHardware> hardware,
                      std::shared_ptr<Workspace> workspace);
    ~ProcessTapCapture() override;

    /// Tap, aggregate device, IO proc, in that order; any failure tears down what was made and
    /// fails with a CoreAudioError or ProcessTapError. Returns at once when already started.
    Expected<void, ErrorRef> start() override;
    std::optional<AudioFormat> format() const override { return format_; }
    void setBufferHandler(BufferHandler handler) override;
    void setFailureHandler(FailureCallback handler) override;
    /// Listener, IO proc, device, tap, in that order. Harmless in any state.
    void stop() override;

    const TapTarget& target() const { return target_; }
    std::optional<AudioFormat> tapFormat() const { return tapFormat_; }
    AudioObjectID tapID() const { return tapID_; }
    AudioObjectID aggregateID() const { return aggregateID_; }
    std::vector<AudioObjectID> currentMemberObjects() const;

    /// The process objects of one application: its own and those of the processes it is
    /// responsible for, by process id in order of first sight. Never fails (a failed read skips).
    static std::vector<AudioObjectID> memberObjects(AudioHardware& hardware, Workspace& workspace,
                                                    std::int32_t pid);

    /// The private device that holds a tap, clocked by the given output device.
    static AggregateDeviceDescription aggregateDescription(const std::string& outputDeviceUID,
                                                           const std::string& tapUUID);

private:
    Expected<void, ErrorRef> makeTapDescription(TapDescription& description);
    Unexpected<ErrorRef> tearDown(ErrorRef error);
    void addProcessListListener();
    void ioCycle(const AudioBufferList* input);
    void rebind();
    /// Another running process of the application `bundleID`, once `gone` has quit.
    std::optional<std::int32_t> relaunchOf(const std::string& bundleID, std::int32_t gone);

    const TapTarget target_;
    const bool muteTappedAudio_;
    std::shared_ptr<AudioHardware> hardware_;
    std::shared_ptr<Workspace> workspace_;

    // Written on the control queue only.
    std::atomic<AudioObjectID> tapID_{0};  // read by rebinding under rebindLock_
    AudioObjectID aggregateID_ = 0;
    AudioDeviceIOProcID ioProcID_ = 0;
    std::atomic<bool> started_{false};

    mutable std::mutex rebindLock_;  // guards the five below
    std::optional<TapDescription> tapDescription_;
    std::vector<AudioObjectID> currentMemberObjects_;
    AudioObjectPropertyListener processListListener_;
    std::int32_t followedPID_ = 0;         // the target, or its relaunch
    std::optional<std::string> bundleID_;  // the target's application, when it has one

    // Written before the IO proc exists, read by it without a lock.
    std::optional<AudioFormat> format_;
    std::optional<AudioFormat> tapFormat_;

    std::mutex bufferHandlerLock_;  // guards the handler
    BufferHandler storedBufferHandler_;
    LossReport lossReport_;
    std::unique_ptr<OverloadWatch> overloadWatch_;  // control queue only

    std::vector<float> scratch_;  // on `queue_` only
    std::shared_ptr<SerialQueue> queue_;
};

}  // namespace bw
