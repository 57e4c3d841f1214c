#include "app/SystemClock.h"

#include <QCoreApplication>
#include <QTimer>

#include "app/SharedResult.h"

namespace bw {

std::shared_ptr<SystemClock> SystemClock::shared() {
    static const auto clock = std::make_shared<SystemClock>();
    return clock;
}

QDateTime SystemClock::now() const {
    return QDateTime::currentDateTime();
}

QCoro::Task<bool> SystemClock::sleep(std::chrono::milliseconds duration,
                                     CancellationToken cancellation) {
    if (cancellation && cancellation->isCancelled()) {
        co_return false;
    }
    SharedResult<bool> woken;
    // The timer outlives a cancelled sleep and then finds the result already set.
    QTimer::singleShot(duration, Qt::PreciseTimer, QCoreApplication::instance(),
                       [woken]() mutable { woken.set(true); });
    std::uint64_t ticket = 0;
    if (cancellation) {
        ticket = cancellation->onCancel([woken]() mutable { woken.set(false); });
    }
    const bool slept = co_await woken;
    if (cancellation) {
        cancellation->forget(ticket);
    }
    co_return slept;
}

}  // namespace bw
