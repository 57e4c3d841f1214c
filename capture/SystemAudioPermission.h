#pragma once

#include <QObject>
#include <QSettings>
#include <memory>
#include <qcoro/qcorotask.h>

#include "capture/SystemAudioTapProbe.h"

namespace bw {

/// Whether this program may record the system's sound, as learnt from attempts to make a tap:
/// the audio system asks the user at the first attempt, and each outcome is the answer.
///
/// Thread: the main (GUI) thread; only the probe runs elsewhere, on the work pool. `status`
/// notifies at every assignment. The preference "systemAudioPermissionAttempted" turns true once
/// an attempt has finished, whatever its outcome.
class SystemAudioPermission : public QObject {
    Q_OBJECT
    Q_PROPERTY(Status status READ status NOTIFY statusChanged)

public:
    enum class Status { unknown, requesting, granted, denied };
    Q_ENUM(Status)

    static constexpr const char* kAttemptedKey = "systemAudioPermissionAttempted";

    /// `defaults` must outlive the object.
    SystemAudioPermission(std::shared_ptr<SystemAudioTapProbe> probe, QSettings* defaults,
                          QObject* parent = nullptr);

    Status status() const { return status_; }
    bool attemptedBefore() const;

    /// The user's request: `requesting` first (the system's dialog is due), then the attempt.
    QCoro::Task<void> request();

    /// An attempt, its result into `status` (straight from the old value), the preference set.
    QCoro::Task<void> recheck();

    /// Runs the probe off the main thread: `granted` when it made a tap, `denied` on any failure.
    static QCoro::Task<Status> attempt(std::shared_ptr<SystemAudioTapProbe> probe);

signals:
    void statusChanged();

private:
    void setStatus(Status status);

    std::shared_ptr<SystemAudioTapProbe> probe_;
    QSettings* defaults_;
    Status status_ = Status::unknown;
};

}  // namespace bw
