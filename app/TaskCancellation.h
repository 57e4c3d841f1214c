#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace bw {

/// The cancelled mark of one task, shared by the task (which tests it and sleeps on it) and by
/// the handle that cancels it.
///
/// Thread: the main thread only. Allocates when a wake-up is registered.
class TaskCancellation {
public:
    bool isCancelled() const { return cancelled_; }

    /// Marks the task cancelled and runs each registered wake-up once, in registration order,
    /// before returning; a sleeping task therefore resumes inside this call. Later calls do
    /// nothing.
    void cancel() {
        if (cancelled_) {
            return;
        }
        cancelled_ = true;
        auto wakeUps = std::move(wakeUps_);
        wakeUps_.clear();
        for (auto& entry : wakeUps) {
            if (entry.wake) {
                entry.wake();
            }
        }
    }

    /// Registers `wake` for `cancel`; the ticket takes it back. A wake-up registered after the
    /// cancellation never runs: test `isCancelled` first.
    std::uint64_t onCancel(std::function<void()> wake) {
        const auto ticket = ++lastTicket_;
        if (!cancelled_) {
            wakeUps_.push_back({ticket, std::move(wake)});
        }
        return ticket;
    }

    void forget(std::uint64_t ticket) {
        std::erase_if(wakeUps_, [ticket](const WakeUp& entry) { return entry.ticket == ticket; });
    }

private:
    struct WakeUp {
        std::uint64_t ticket;
        std::function<void()> wake;
    };

    bool cancelled_ = false;
    std::uint64_t lastTicket_ = 0;
    std::vector<WakeUp> wakeUps_;
};

/// What a cancellable task holds: the shared mark. Null means "never cancelled".
using CancellationToken = std::shared_ptr<TaskCancellation>;

}  // namespace bw
