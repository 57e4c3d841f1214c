#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/av/AVError.h"
#include "platform/av/AudioFormat.h"
#include "platform/av/AudioInputNode.h"
#include "platform/av/AudioMixerNode.h"
#include "platform/av/AudioNode.h"
#include "platform/base/Expected.h"
#include "platform/hal/AudioHardware.h"

namespace bw {

class SerialQueue;

namespace detail {
class CompletionThread;
}

/// An audio graph: nodes attached and connected at formats, rendered by the default output
/// device's IO proc through `AudioHardware` (the main mixer feeds the device), and an input node
/// fed by an input device's IO proc.
///
/// Owner: the user; the engine shares ownership of its attached nodes. Thread: attach, connect,
/// prepare, start and stop are for one controlling thread at a time; `start` and `stop` block on
/// the hardware. Rendering runs on the device's realtime thread (no allocation, lock, log or wait
/// there); taps and completions run on threads of their own.
///
/// When the default output device changes, or the output or input device goes away, the engine
/// stops and then calls its configuration-change observers (on a queue of its own).
class AudioEngine {
public:
    using ObserverToken = std::uint64_t;

    /// `hardware` may be null: the engine then has no devices and its input node no unit.
    explicit AudioEngine(std::shared_ptr<AudioHardware> hardware);
    ~AudioEngine();
    AudioEngine(const AudioEngine&) = delete;
    AudioEngine& operator=(const AudioEngine&) = delete;

    void attach(const std::shared_ptr<AudioNode>& node);

    /// Connects `source`'s output to `target`'s next free input bus (a mixer's next bus, another
    /// node's only bus) at `format`, which becomes `source`'s output format. Both must be attached;
    /// false otherwise or when `target` takes no input.
    bool connect(const std::shared_ptr<AudioNode>& source, const std::shared_ptr<AudioNode>& target,
                 const AudioFormat& format);

    /// The mixer that feeds the output device, made and attached at first use. Its output format
    /// is the device's rate and channel count, read at each `prepare`.
    std::shared_ptr<AudioMixerNode> mainMixerNode();

    /// The input side, made and attached at first use.
    std::shared_ptr<AudioInputNode> inputNode();

    /// Reads the devices' formats and allocates what rendering needs. `start` does it too.
    void prepare();

    /// Starts rendering to the output device when the main mixer is in use (unless rendering is
    /// manual), and the input device when the input node has a tap. The error tells what failed;
    /// nothing is left running then.
    Expected<void, AVError> start();

    /// From now on no output device clocks the graph: the main mixer renders at `format` (its
    /// rate and channel count) only when `renderManually` asks. The default output device is
    /// still needed to start and still watched for configuration changes, but never opened.
    /// Engine stopped; controlling thread.
    void enableManualRenderingMode(const AudioFormat& format);
    bool isInManualRenderingMode() const { return manualFormat_.has_value(); }

    // Realtime: renders `frames` frames through the main mixer (taps and completions as in a
    // device cycle) and discards its output; nothing while the engine is stopped. One caller at a
    // time, on any thread; no allocation, lock or wait. False when nothing was rendered.
    bool renderManually(FrameCount frames);

    /// Stops the devices; once it returns no render cycle runs. Queued player buffers stay queued.
    void stop();

    bool isRunning() const;

    /// Calls `observer` after the engine stopped because the audio configuration changed.
    ObserverToken addConfigurationChangeObserver(std::function<void()> observer);
    /// After it returns no call of that observer starts.
    void removeConfigurationChangeObserver(ObserverToken token);

    /// Waits until a render cycle running now has ended (returns at once when none is).
    void waitForRenderCycle() const;
    /// Waits until an input cycle running now has ended.
    void waitForInputCycle() const;

private:
    friend class AudioPlayerNode;

    struct DeviceRun {
        AudioDeviceID device = 0;
        AudioDeviceIOProcID proc = 0;
    };

    detail::CompletionThread& completionThread() { return *completions_; }
    // Realtime: marks that a completion waits for the end of the cycle.
    void noteCompletionsPosted() { completionsPosted_ = true; }

    Expected<void, AVError> startOutput(DeviceRun& run);
    Expected<void, AVError> startInput(DeviceRun& run);
    void renderCycle(AudioBufferList* output);
    void prepareNode(AudioNode& node, std::vector<AudioNode*>& prepared);
    void stopDevices(DeviceRun output, DeviceRun input);
    void addDeviceListeners();
    void removeDeviceListeners();
    void handleDeviceChange();
    void postConfigurationChange();

    std::shared_ptr<AudioHardware> hardware_;
    std::shared_ptr<SerialQueue> inputQueue_;
    std::shared_ptr<SerialQueue> notifyQueue_;
    std::unique_ptr<detail::CompletionThread> completions_;
    std::vector<std::shared_ptr<AudioNode>> nodes_;
    std::shared_ptr<AudioMixerNode> mainMixer_;
    std::shared_ptr<AudioInputNode> inputNode_;

    // Render state: written while stopped, read by the render thread.
    std::optional<AudioFormat> outputDeviceFormat_;
    std::optional<AudioFormat> manualFormat_;
    std::atomic<bool> rendersManually_{false};  // running in manual mode
    std::optional<AudioFormat> inputDeviceFormat_;
    std::vector<std::vector<float>> renderScratch_;
    std::vector<float*> renderPointers_;
    bool completionsPosted_ = false;
    std::atomic<std::uint64_t> renderEpoch_{0};  // odd while a render cycle runs

    mutable std::mutex stateMutex_;  // guards the fields below; never held across a hardware call
    bool running_ = false;
    DeviceRun output_;
    DeviceRun input_;
    AudioObjectPropertyListener deviceListener_;
    std::vector<std::pair<ObserverToken, std::function<void()>>> observers_;
    ObserverToken nextToken_ = 1;
};

}  // namespace bw
