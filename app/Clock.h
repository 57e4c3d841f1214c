#pragma once

#include <qcoro/qcorotask.h>
#include <QDateTime>
#include <chrono>

#include "app/TaskCancellation.h"

namespace bw {

/// Time for the application's periodic tasks: the wall-clock date for names and the timer, and
/// sleeps on a continuous clock that a cancellation cuts short. Tests give a clock they advance
/// by hand.
///
/// Thread: the main thread only.
class Clock {
public:
    virtual ~Clock() = default;

    /// The present moment in local time.
    virtual QDateTime now() const = 0;

    /// Resumes the awaiting coroutine on the main thread after `duration` of continuous time
    /// with true, or with false as soon as `cancellation` is cancelled (at once when it already
    /// is); a null token never cancels. A sleep that answers false must be followed by no write:
    /// that is how a cancelled task ends.
    virtual QCoro::Task<bool> sleep(std::chrono::milliseconds duration,
                                    CancellationToken cancellation) = 0;
};

}  // namespace bw
