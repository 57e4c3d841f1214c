#pragma once

#include <QPointer>
#include <map>

#include "interface/ConsoleClock.h"

namespace bw {

/// A `ConsoleClock` that moves only when told: tests and screenshot tools advance it by hand.
///
/// `advance` walks time forward in frame-sized steps, firing every deadline at its own time (in
/// deadline order, equal deadlines in the order they were set) and emitting `frame` after each
/// step for which a frame was requested. GUI thread only.
class ManualConsoleClock final : public ConsoleClock {
    Q_OBJECT
public:
    explicit ManualConsoleClock(QObject* parent = nullptr);

    Duration now() const override { return now_; }
    void requestFrame() override { framePending_ = true; }
    void callAt(Duration deadline, QObject* context, std::function<void()> action) override;

    /// Moves time forward by `by`, in steps of at most `frameStep`.
    void advance(Duration by, Duration frameStep = std::chrono::milliseconds(16));

    /// Whether some animation still waits for a frame.
    bool framePending() const { return framePending_; }

    /// Deadlines set and not yet reached (including those whose context has gone).
    std::size_t pendingDeadlines() const { return deadlines_.size(); }

private:
    struct Entry {
        QPointer<QObject> context;
        std::function<void()> action;
    };

    void fireDue();

    Duration now_{std::chrono::seconds(1)};
    bool framePending_ = false;
    std::multimap<Duration, Entry> deadlines_;
};

}  // namespace bw
