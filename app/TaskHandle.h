#pragma once

#include <qcoro/qcorotask.h>
#include <memory>
#include <utility>

#include "app/TaskCancellation.h"

namespace bw {

/// A running main-thread task that can be cancelled: its coroutine and its cancellation mark.
/// Dropping the handle neither cancels nor stops the task; it runs on by itself and frees its
/// frame when it ends.
///
/// Thread: the main thread only. Move-only.
class TaskHandle {
public:
    /// Starts `body(token)` at once, with a fresh token; the body runs up to its first
    /// suspension before this returns. `body` must return a `QCoro::Task<void>` and must not be a
    /// coroutine lambda with captures (its captures would die before the task resumes): let it
    /// call a member coroutine that takes what it needs by value.
    template <class Body>
    static TaskHandle start(Body&& body) {
        auto token = std::make_shared<TaskCancellation>();
        QCoro::Task<void> task = std::forward<Body>(body)(token);
        return TaskHandle(std::move(token), std::move(task));
    }

    TaskHandle(TaskHandle&&) noexcept = default;
    TaskHandle& operator=(TaskHandle&&) noexcept = default;

    /// Marks the task cancelled and wakes it from a sleep, inside this call.
    void cancel() { token_->cancel(); }
    bool isCancelled() const { return token_->isCancelled(); }
    bool isFinished() const { return task_.isReady(); }

private:
    TaskHandle(CancellationToken token, QCoro::Task<void> task)
        : token_(std::move(token)), task_(std::move(task)) {}

    CancellationToken token_;
    QCoro::Task<void> task_;
};

}  // namespace bw
