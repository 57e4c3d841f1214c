#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>

#include "platform/av/PCMBuffer.h"
#include "platform/av/detail/MpscQueue.h"
#include "platform/dispatch/Semaphore.h"

namespace bw::detail {

/// A buffer queued on a player, from `scheduleBuffer` until its completion has run. Made on the
/// scheduling thread, read on the render thread, destroyed on the completion thread, so the render
/// thread never frees memory.
struct ScheduledBuffer : MpscNode {
    std::shared_ptr<PCMBuffer> buffer;
    std::function<void()> completion;
    FrameCount consumed = 0;
};

/// The engine's completion thread: runs the completions of played buffers and releases them.
///
/// `complete` is realtime-safe (a wait-free push). Completions run one at a time on the thread, in
/// the order they were posted, within `kPoll` of their posting: `wake` wakes the thread only for
/// the first completion after a quiet spell and for every `kBatch`-th, so a steady stream costs a
/// few wake-ups a second instead of one a render cycle. The destructor runs what is still queued.
class CompletionThread {
public:
    static constexpr int kBatch = 16;
    static constexpr auto kPoll = std::chrono::milliseconds(100);

    CompletionThread();
    ~CompletionThread();
    CompletionThread(const CompletionThread&) = delete;
    CompletionThread& operator=(const CompletionThread&) = delete;

    // Realtime: hands a finished buffer over; call `wake` once after a batch.
    void complete(ScheduledBuffer* item) { queue_.push(item); }
    // Realtime: no allocation; a futex post at most, and only when the thread would not look soon.
    void wake() {
        if (idle_.exchange(false, std::memory_order_acq_rel) ||
            unannounced_.fetch_add(1, std::memory_order_relaxed) + 1 >= kBatch) {
            unannounced_.store(0, std::memory_order_relaxed);
            signal_.release();
        }
    }
    /// Wakes the thread at once (after a stop discarded buffers). Any thread.
    void wakeNow() { signal_.release(); }

private:
    void run();
    bool drain();

    MpscQueue queue_;
    Semaphore signal_;
    std::atomic<bool> idle_{true};  // the thread waits without a deadline
    std::atomic<int> unannounced_{0};
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

}  // namespace bw::detail
