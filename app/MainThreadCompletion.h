#pragma once

#include <functional>
#include <utility>

#include "app/MainThread.h"
#include "app/SharedResult.h"

namespace bw {

/// Turns a completion callback that may run on any thread into something a main-thread
/// coroutine awaits: the value travels to the main thread through its event loop, and the
/// waiters resume there, never inside the callback.
///
/// Thread: create and await on the main thread; the callback may be called from any thread, also
/// synchronously. Only its first call counts. `T` must be copyable.
template <class T>
class MainThreadCompletion {
public:
    /// The callback to hand to the asynchronous operation.
    std::function<void(T)> callback() const {
        return [result = result_](T value) {
            MainThread::post(
                [result, value = std::move(value)]() mutable { result.set(std::move(value)); });
        };
    }

    auto operator co_await() const { return result_.operator co_await(); }

private:
    SharedResult<T> result_;
};

}  // namespace bw
