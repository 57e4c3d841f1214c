#pragma once

#include <qcoro/qcorotask.h>
#include <type_traits>
#include <utility>

#include "app/MainThreadCompletion.h"
#include "platform/dispatch/WorkPool.h"

namespace bw {

/// Runs `work` on the shared work pool and resumes the awaiting coroutine on the main thread
/// with its result. The work is queued before the first suspension, so two calls in a row run
/// side by side. `work` is moved to the pool and must not touch main-thread state; its result
/// must be copyable.
///
/// Pass a named callable (`co_await runOffMainThread(std::move(work))`): GCC 12 destroys a lambda
/// written inside a `co_await` expression twice.
template <class Work>
auto runOffMainThread(Work work) -> QCoro::Task<std::invoke_result_t<Work&>> {
    using Result = std::invoke_result_t<Work&>;
    MainThreadCompletion<Result> completion;
    WorkPool::shared().async(
        [work = std::move(work), done = completion.callback()]() mutable { done(work()); });
    co_return co_await completion;
}

}  // namespace bw
