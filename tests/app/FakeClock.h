#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "app/Clock.h"
#include "app/SharedResult.h"

namespace bw::test {

/// A clock that moves only when the test says so. Sleeps end inside `advance`, in the order of
/// their deadlines, each seeing the clock at its own deadline.
class FakeClock : public Clock {
public:
    explicit FakeClock(QDateTime start = QDateTime(QDate(2026, 3, 14), QTime(9, 26, 53)))
        : start_(std::move(start)) {}

    QDateTime now() const override { return start_.addMSecs(elapsed_.count() + wallShift_); }

    QCoro::Task<bool> sleep(std::chrono::milliseconds duration,
                            CancellationToken cancellation) override {
        if (cancellation && cancellation->isCancelled()) {
            co_return false;
        }
        const auto id = ++lastID_;
        SharedResult<bool> woken;
        sleeps_.push_back({elapsed_ + duration, id, duration, woken});
        std::uint64_t ticket = 0;
        if (cancellation) {
            ticket = cancellation->onCancel([this, id, woken]() mutable {
                std::erase_if(sleeps_, [id](const Sleep& s) { return s.id == id; });
                woken.set(false);
            });
        }
        const bool slept = co_await woken;
        if (cancellation) {
            cancellation->forget(ticket);
        }
        co_return slept;
    }

    void advance(std::chrono::milliseconds step) {
        const auto target = elapsed_ + step;
        for (;;) {
            auto due = std::min_element(sleeps_.begin(), sleeps_.end(), [](auto& a, auto& b) {
                return a.deadline != b.deadline ? a.deadline < b.deadline : a.id < b.id;
            });
            if (due == sleeps_.end() || due->deadline > target) {
                break;
            }
            Sleep woken = *due;
            sleeps_.erase(due);
            elapsed_ = std::max(elapsed_, woken.deadline);
            woken.result.set(true);
        }
        elapsed_ = target;
    }

    /// Moves the wall clock only, as a user setting the system time does.
    void shiftWallClock(std::chrono::milliseconds shift) { wallShift_ += shift.count(); }

    /// The durations of the sleeps under way, in the order they began.
    std::vector<std::chrono::milliseconds> pendingSleeps() const {
        std::vector<std::chrono::milliseconds> durations;
        for (const auto& s : sleeps_) {
            durations.push_back(s.duration);
        }
        return durations;
    }

private:
    struct Sleep {
        std::chrono::milliseconds deadline;
        std::uint64_t id;
        std::chrono::milliseconds duration;
        SharedResult<bool> result;
    };

    QDateTime start_;
    std::chrono::milliseconds elapsed_{0};
    qint64 wallShift_ = 0;
    std::uint64_t lastID_ = 0;
    std::vector<Sleep> sleeps_;
};

}  // namespace bw::test
