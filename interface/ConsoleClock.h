#pragma once

#include <QObject>
#include <chrono>
#include <functional>

class QWidget;

namespace bw {

/// The time base of the console's motion: springs, the record key's pulse, the digit roll and
/// the clip lamp's hold. Widgets read time only from here, so a test drives them with a
/// `ManualConsoleClock` and never waits.
///
/// Thread: the GUI thread only. A widget given a clock keeps a plain pointer to it: the clock
/// must outlive the widgets that use it (`system()` lives as long as the process).
class ConsoleClock : public QObject {
    Q_OBJECT
public:
    using Duration = std::chrono::nanoseconds;

    /// The clock of the running program: the steady clock, frames from a Qt timer at about
    /// 60 a second, deadlines from Qt timers. Created on first use, never destroyed.
    static ConsoleClock* system();

    /// Time since a fixed origin; never decreases.
    virtual Duration now() const = 0;

    /// Asks for one `frame` signal soon (a frame's time later on the system clock). Requests made
    /// before that frame is delivered fold into it; an animation that still moves asks again.
    virtual void requestFrame() = 0;

    /// Runs `action` on the GUI thread once `now()` has reached `deadline`, unless `context` has
    /// been destroyed by then. There is no cancel: a caller that moves its deadline checks it again
    /// when the old one fires.
    virtual void callAt(Duration deadline, QObject* context, std::function<void()> action) = 0;

    /// Whether motion on `widget` can be seen now: it is visible and its window is on screen
    /// (not hidden, minimised away or unmapped). Motion nobody sees need not be stepped; the
    /// window's repaint when it returns is the moment to start again.
    static bool isSeen(const QWidget* widget);

signals:
    /// One animation frame: every animated widget advances to `now()` and repaints.
    void frame();

protected:
    using QObject::QObject;
};

}  // namespace bw
