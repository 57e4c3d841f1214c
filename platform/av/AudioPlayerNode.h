#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

#include "platform/av/AudioNode.h"
#include "platform/av/PCMBuffer.h"
#include "platform/av/detail/MpscQueue.h"

namespace bw {

namespace detail {
struct ScheduledBuffer;
}

/// Plays buffers, in the order they were scheduled, into the node it is connected to.
///
/// Thread: `scheduleBuffer` may be called from any thread (wait-free hand-over to the render
/// thread; it allocates one small record per buffer). `play`, `stop` and `setVolume` from the
/// controlling thread. Completions run on the engine's completion thread, one at a time.
class AudioPlayerNode : public AudioNode {
public:
    enum class CompletionCallbackType {
        dataConsumed = 0,
        dataRendered = 1,
        dataPlayedBack = 2,
    };
    using CompletionHandler = std::function<void()>;

    AudioPlayerNode();
    ~AudioPlayerNode() override;

    /// Queues a buffer behind those already queued. The completion runs once the buffer's frames
    /// have been rendered to the device (for every callback type: rendering is the last step we
    /// can see), or once `stop` has discarded it. A buffer whose channel count or rate differs
    /// from the player's output is skipped and completed. False, with nothing queued and no
    /// completion, when the buffer is null or the player is not attached to an engine.
    bool scheduleBuffer(std::shared_ptr<PCMBuffer> buffer, CompletionCallbackType type,
                        CompletionHandler completion);

    /// Starts consuming queued buffers at the next render cycle.
    void play();

    /// Stops consuming and discards every queued buffer, running their completions.
    void stop();

    bool isPlaying() const { return playing_.load(); }

    // Realtime: frames scheduled and not yet rendered or discarded. Any thread; a wait-free read.
    FrameCount queuedFrames() const {
        return FrameCount(std::max<std::int64_t>(queuedFrames_.load(std::memory_order_acquire), 0));
    }

    /// Linear gain from 0 to 1 (values outside are clamped).
    void setVolume(float volume);
    float volume() const { return volume_.load(); }

protected:
    std::uint32_t maximumInputs() const override { return 0; }
    bool prepareRender(FrameCount maxFrames) override;
    void render(float* const* output, FrameCount frames) override;
    void renderingStopped() override;

private:
    bool acquireQueue(bool wait);
    void releaseQueue();
    void discardQueued(bool runCompletions);
    void finish(detail::ScheduledBuffer* item);

    detail::MpscQueue queue_;
    detail::ScheduledBuffer* current_ = nullptr;  // the buffer being played, render side
    std::atomic_flag consuming_;                  // who may pop `queue_` now
    std::atomic<bool> playing_{false};
    std::atomic<float> volume_{1.0f};
    std::atomic<std::int64_t> queuedFrames_{0};
};

}  // namespace bw
