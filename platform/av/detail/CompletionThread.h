#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <semaphore>
#include <thread>

#include "platform/av/PCMBuffer.h"
#include "platform/av/detail/MpscQueue.h"

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
/// `complete` is realtime-safe (a wait-free push and a semaphore post). Completions run one at a
/// time on the thread, in the order they were posted. The destructor runs what is still queued.
class CompletionThread {
public:
    CompletionThread();
    ~CompletionThread();
    CompletionThread(const CompletionThread&) = delete;
    CompletionThread& operator=(const CompletionThread&) = delete;

    // Realtime: hands a finished buffer over; call `wake` once after a batch.
    void complete(ScheduledBuffer* item) { queue_.push(item); }
    // Realtime: no allocation; a futex post at most.
    void wake() { signal_.release(); }

private:
    void run();
    void drain();

    MpscQueue queue_;
    std::counting_semaphore<> signal_{0};
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

}  // namespace bw::detail
