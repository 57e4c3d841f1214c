#pragma once

#include <atomic>
#include <mutex>

#include "engine/BoundedBufferScheduler.h"
#include "engine/FailureCallback.h"

namespace bw {

/// A capture's one report of lost audio per start: the handler the engine gave, and whether this
/// start has reported already. `set` and `report` from any thread; `report` calls the handler
/// outside the lock.
class LossReport {
public:
    void set(FailureCallback handler) {
        std::lock_guard guard(lock_);
        handler_ = std::move(handler);
    }
    /// A new start may report again.
    void rearm() { reported_ = false; }
    void report() {
        if (reported_.exchange(true)) {
            return;
        }
        FailureCallback handler;
        {
            std::lock_guard guard(lock_);
            handler = handler_;
        }
        if (handler) {
            handler(BoundedBufferScheduler::overrunMessage());
        }
    }

private:
    std::mutex lock_;
    FailureCallback handler_;
    std::atomic<bool> reported_{false};
};

}  // namespace bw
