#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

#include "engine/FailureCallback.h"
#include "platform/av/AudioFile.h"
#include "platform/av/PCMBuffer.h"
#include "platform/dispatch/SerialQueue.h"

namespace bw {

/// Writes the mix to the recording's file on a queue of its own, so that the tap never waits for
/// the disk. At most `maxPendingBuffers` copies are in flight; beyond that buffers are dropped.
/// The first failure of any kind is reported once; nothing is retried.
///
/// Owner: the recording engine (shared; queued writes and the close hold the writer too, so what
/// was accepted is written even after the owner lets go). Thread: `write` on
/// the tap's thread (a short locked update, a copy unless the buffer is handed over, one dispatch;
/// never blocks on the disk);
/// `close` on the engine's control queue; the file only on `queue`. `stateLock` is never held
/// across the callback, the copy or the file.
class QueuedFileWriter : public std::enable_shared_from_this<QueuedFileWriter> {
public:
    static constexpr int kMaxPendingBuffers = 24;
    static constexpr const char* kQueueLabel = "com.tallowfields.BrightwaveRecord.file-writer";

    QueuedFileWriter(std::unique_ptr<AudioFile> file, int maxPendingBuffers = kMaxPendingBuffers);

    /// Copies the buffer and queues its write. The caller's buffer is not held after the call.
    void write(const PCMBuffer& buffer, const FailureCallback& onFailure);
    /// Queues the write of a buffer the caller gives up (no copy); it must not be changed after.
    void write(std::shared_ptr<PCMBuffer> buffer, const FailureCallback& onFailure);

    /// Takes no more buffers; once every write queued before has reached the file, releases the
    /// file (which completes it) and then calls `completion` on `queue`. Called on `queue` itself,
    /// it completes before returning.
    void close(std::function<void()> completion = {});

    /// Frames that reached the file so far, and buffers refused at the bound (any thread).
    std::int64_t framesWritten() const { return framesWritten_.load(); }
    int droppedBuffers() const { return droppedBuffers_.load(); }

    /// The writer's queue (for tests and for callers that must know where completions run).
    SerialQueue& queue() { return *queue_; }

private:
    bool takeSlot(const FailureCallback& onFailure);
    void report(const std::string& message, const FailureCallback& onFailure);
    void returnSlot();

    std::shared_ptr<SerialQueue> queue_;
    std::mutex stateLock_;
    std::unique_ptr<AudioFile> file_;  // on `queue_` only, after construction
    bool closed_ = false;
    int pendingBuffers_ = 0;
    bool reportedFailure_ = false;
    const int maxPendingBuffers_;
    std::atomic<std::int64_t> framesWritten_{0};
    std::atomic<int> droppedBuffers_{0};
};

}  // namespace bw
