#pragma once

#include <QDateTime>
#include <QObject>
#include <QString>
#include <memory>
#include <optional>

#include "app/Clock.h"
#include "app/TaskHandle.h"

namespace bw {

/// The elapsed time of the running recording and its two text forms, ticking every 500 ms.
/// `elapsed` is worked out from the start date at every tick, never summed, so a late tick
/// leaves no error; it is never negative, and it keeps its last value after `stop`.
///
/// Thread: the main thread only. `elapsedChanged` fires at every tick, also when the whole
/// seconds stay the same.
class RecordingTimer : public QObject {
    Q_OBJECT
    Q_PROPERTY(double elapsed READ elapsed NOTIFY elapsedChanged)
    Q_PROPERTY(QString formattedElapsed READ formattedElapsed NOTIFY elapsedChanged)
    Q_PROPERTY(QString compactElapsed READ compactElapsed NOTIFY elapsedChanged)

public:
    static constexpr auto kTickInterval = std::chrono::milliseconds(500);

    explicit RecordingTimer(std::shared_ptr<Clock> clock, QObject* parent = nullptr);
    ~RecordingTimer() override;

    /// The process-wide instance on the system clock, made at first use.
    static RecordingTimer& shared();

    /// Seconds since the start date of the recording, as of the last tick.
    double elapsed() const { return elapsed_; }

    /// "h:mm:ss", hours without a leading zero or upper limit.
    QString formattedElapsed() const { return formatted(elapsed_); }
    /// "mm:ss" below an hour, else "h:mm:ss".
    QString compactElapsed() const { return compact(elapsed_); }

    static QString formatted(double seconds);
    static QString compact(double seconds);

    /// Cancels a running tick task, sets `elapsed` to 0 and starts ticking from `startDate`; the
    /// first tick runs before this returns.
    void start(const QDateTime& startDate);

    /// Cancels the tick task; `elapsed` keeps its value.
    void stop();

signals:
    void elapsedChanged();

private:
    QCoro::Task<void> tick(QDateTime startDate, CancellationToken cancellation);
    void setElapsed(double seconds);

    std::shared_ptr<Clock> clock_;
    double elapsed_ = 0;
    std::optional<TaskHandle> updateTask_;
};

}  // namespace bw
