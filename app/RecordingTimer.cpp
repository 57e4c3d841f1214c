#include "app/RecordingTimer.h"

#include <QPointer>
#include <cmath>
#include <cstdint>

#include "app/SystemClock.h"

namespace bw {

namespace {
struct Parts {
    std::int64_t hours, minutes, seconds;
};

Parts split(double elapsed) {
    // Fractions are dropped, not rounded; a value that isn't a count of seconds shows as 0.
    const std::int64_t total =
        std::isfinite(elapsed) && elapsed > 0 ? static_cast<std::int64_t>(elapsed) : 0;
    return {total / 3600, (total % 3600) / 60, total % 60};
}
}  // namespace

RecordingTimer::RecordingTimer(std::shared_ptr<Clock> clock, QObject* parent)
    : QObject(parent), clock_(std::move(clock)) {}

RecordingTimer::~RecordingTimer() {
    stop();
}

RecordingTimer& RecordingTimer::shared() {
    static auto* timer = new RecordingTimer(SystemClock::shared());  // lives until the end
    return *timer;
}

QString RecordingTimer::formatted(double seconds) {
    const Parts p = split(seconds);
    return QString::asprintf("%lld:%02lld:%02lld", static_cast<long long>(p.hours),
                             static_cast<long long>(p.minutes), static_cast<long long>(p.seconds));
}

QString RecordingTimer::compact(double seconds) {
    const Parts p = split(seconds);
    if (p.hours == 0) {
        return QString::asprintf("%02lld:%02lld", static_cast<long long>(p.minutes),
                                 static_cast<long long>(p.seconds));
    }
    return formatted(seconds);
}

void RecordingTimer::start(const QDateTime& startDate) {
    if (updateTask_) {
        updateTask_->cancel();
    }
    setElapsed(0);
    updateTask_ = TaskHandle::start(
        [this, startDate](CancellationToken token) { return tick(startDate, token); });
}

void RecordingTimer::stop() {
    if (updateTask_) {
        updateTask_->cancel();
        updateTask_.reset();
    }
}

QCoro::Task<void> RecordingTimer::tick(QDateTime startDate, CancellationToken cancellation) {
    QPointer<RecordingTimer> self(this);
    auto clock = clock_;
    while (!cancellation->isCancelled()) {
        if (!self) {
            co_return;
        }
        const double seconds = startDate.msecsTo(clock->now()) / 1000.0;
        setElapsed(seconds >= 0 ? seconds : 0);
        if (!co_await clock->sleep(kTickInterval, cancellation)) {
            co_return;
        }
    }
}

void RecordingTimer::setElapsed(double seconds) {
    elapsed_ = seconds;
    emit elapsedChanged();
}

}  // namespace bw
