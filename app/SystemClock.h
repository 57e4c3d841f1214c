#pragma once

#include <memory>

#include "app/Clock.h"

namespace bw {

/// The real clock: local wall-clock time, and sleeps on Qt's monotonic timers (precise timers,
/// so a 100 ms step stays near 100 ms).
///
/// Thread: the main thread only; sleeps need its event loop.
class SystemClock final : public Clock {
public:
    /// The process-wide instance.
    static std::shared_ptr<SystemClock> shared();

    QDateTime now() const override;
    QCoro::Task<bool> sleep(std::chrono::milliseconds duration,
                            CancellationToken cancellation) override;
};

}  // namespace bw
