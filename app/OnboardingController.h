#pragma once

#include <QObject>
#include <QStringList>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include "app/TaskHandle.h"
#include "capture/SystemAudioPermission.h"

class QSettings;

namespace bw {

class Clock;
class SystemAudioTapProbe;

/// What the first-run walkthrough does, without its widgets: the permission to record system
/// audio and its schedule, the desktop's sound settings, and the note that the walkthrough was
/// seen.
///
/// The walkthrough's permission step is the one place that asks for that permission ahead of a
/// recording. While the step is on screen (`setPermissionStepShown(true)`) one schedule runs: a
/// single recheck at once when the preference says an attempt was made before and nothing is
/// known yet, then every `permissionRecheckInterval`, counted from the end of the previous
/// attempt, an attempt while the answer is "denied". Hiding the step or destroying the controller
/// cancels the schedule; an attempt already under way only ends in the permission's status,
/// which stays across steps.
///
/// Owner: the walkthrough's window (Qt parent). Thread: the main thread; the probe runs on the
/// work pool. `defaults` and `clock` must outlive it.
class OnboardingController : public QObject {
    Q_OBJECT
    Q_PROPERTY(SystemAudioPermission::Status permissionStatus READ permissionStatus NOTIFY
                   permissionStatusChanged)
    Q_PROPERTY(bool permissionStepShown READ isPermissionStepShown WRITE setPermissionStepShown
                   NOTIFY permissionStepShownChanged)

public:
    static constexpr std::chrono::milliseconds permissionRecheckInterval{2000};

    /// A program that opens the desktop's sound settings.
    struct SettingsCommand {
        QString program;
        QStringList arguments;
    };
    /// Opens the desktop's settings; returns whether something was started.
    using OpenSettings = std::function<bool()>;

    OnboardingController(std::shared_ptr<SystemAudioTapProbe> probe, QSettings* defaults,
                         Clock& clock, QObject* parent = nullptr);
    ~OnboardingController() override;

    SystemAudioPermission& permission() const { return *permission_; }
    SystemAudioPermission::Status permissionStatus() const { return permission_->status(); }

    bool isPermissionStepShown() const { return stepShown_; }
    /// Starts the schedule when the step comes on screen, cancels it when it leaves.
    void setPermissionStepShown(bool shown);
    /// Whether the schedule is running now.
    bool isPermissionScheduleRunning() const;

    /// The user's "Allow Access".
    void requestPermission();

    /// What "Open Sound Settings" does; by default `openDesktopAudioSettings`.
    void setOpenSettings(OpenSettings open) { openSettings_ = std::move(open); }
    bool openSoundSettings() const { return openSettings_ && openSettings_(); }

    /// Starts the desktop's audio settings detached, when a program for them is found on the
    /// search path. Doesn't wait for the program.
    static bool openDesktopAudioSettings();
    /// The settings program for `desktops` (the colon-separated names of XDG_CURRENT_DESKTOP):
    /// the desktop's own settings where it has them, else a mixer, else another desktop's
    /// settings; `find` turns a program name into its path, empty when missing. The program of
    /// the result is that path.
    static std::optional<SettingsCommand> desktopAudioSettingsCommand(
        const QString& desktops, const std::function<QString(const QString&)>& find);

    /// The walkthrough was seen: "hasCompletedOnboarding" is set and on disk at once, so the
    /// main window doesn't open it again however the program ends.
    void markCompleted();

signals:
    void permissionStatusChanged();
    void permissionStepShownChanged();

private:
    void stopSchedule();
    QCoro::Task<void> runSchedule(CancellationToken cancellation);

    QSettings* defaults_;
    Clock& clock_;
    SystemAudioPermission* permission_;
    OpenSettings openSettings_;
    bool stepShown_ = false;
    std::optional<TaskHandle> schedule_;
};

}  // namespace bw
