#pragma once

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QThread>
#include <functional>

namespace bw::test {

/// Runs the event loop until `done` holds or 10 s have passed (work-pool results arrive through
/// the loop); returns whether it held.
inline bool pumpUntil(const std::function<bool()>& done) {
    QDeadlineTimer deadline(10000);
    while (!done()) {
        if (deadline.hasExpired()) {
            return false;
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        QThread::yieldCurrentThread();
    }
    return true;
}

/// Lets every event that is due run, including results that worker threads post meanwhile.
inline void pumpFor(int milliseconds) {
    QDeadlineTimer deadline(milliseconds);
    while (!deadline.hasExpired()) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    }
}

}  // namespace bw::test
