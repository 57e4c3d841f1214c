#include "app/OnboardingController.h"

#include <QProcess>
#include <QSettings>
#include <QStandardPaths>
#include <algorithm>
#include <vector>

#include "app/AppState.h"
#include "app/Clock.h"

namespace bw {

using Status = SystemAudioPermission::Status;

OnboardingController::OnboardingController(std::shared_ptr<SystemAudioTapProbe> probe,
                                           QSettings* defaults, Clock& clock, QObject* parent)
    : QObject(parent),
      defaults_(defaults),
      clock_(clock),
      permission_(new SystemAudioPermission(std::move(probe), defaults, this)),
      openSettings_(&OnboardingController::openDesktopAudioSettings) {
    connect(permission_, &SystemAudioPermission::statusChanged, this,
            &OnboardingController::permissionStatusChanged);
}

OnboardingController::~OnboardingController() {
    stopSchedule();
}

void OnboardingController::setPermissionStepShown(bool shown) {
    if (shown == stepShown_) {
        return;
    }
    stepShown_ = shown;
    stopSchedule();
    if (shown) {
        schedule_ = TaskHandle::start(
            [this](CancellationToken cancellation) { return runSchedule(cancellation); });
    }
    emit permissionStepShownChanged();
}

bool OnboardingController::isPermissionScheduleRunning() const {
    return schedule_ && !schedule_->isCancelled() && !schedule_->isFinished();
}

void OnboardingController::stopSchedule() {
    if (schedule_) {
        schedule_->cancel();
        schedule_.reset();
    }
}

void OnboardingController::requestPermission() {
    permission_->request();
}

QCoro::Task<void> OnboardingController::runSchedule(CancellationToken cancellation) {
    // `this` is only touched while the token is live: the controller cancels it before it goes.
    SystemAudioPermission* permission = permission_;
    if (permission->attemptedBefore() && permission->status() == Status::unknown) {
        co_await permission->recheck();
        if (cancellation->isCancelled()) {
            co_return;
        }
    }
    for (;;) {
        if (!co_await clock_.sleep(permissionRecheckInterval, cancellation)) {
            co_return;
        }
        if (permission->status() == Status::denied) {
            co_await permission->recheck();
        }
        if (cancellation->isCancelled()) {
            co_return;
        }
    }
}

void OnboardingController::markCompleted() {
    defaults_->setValue(AppState::kHasCompletedOnboardingKey, true);
    defaults_->sync();
}

bool OnboardingController::openDesktopAudioSettings() {
    const auto command = desktopAudioSettingsCommand(
        qEnvironmentVariable("XDG_CURRENT_DESKTOP"),
        [](const QString& name) { return QStandardPaths::findExecutable(name); });
    return command && QProcess::startDetached(command->program, command->arguments);
}

std::optional<OnboardingController::SettingsCommand>
OnboardingController::desktopAudioSettingsCommand(
    const QString& desktops, const std::function<QString(const QString&)>& find) {
    struct Candidate {
        QStringList desktops;  // empty: a mixer that works anywhere
        QString program;
        QStringList arguments;
    };
    static const std::vector<Candidate> candidates = {
        {{"GNOME", "Unity"}, "gnome-control-center", {"sound"}},
        {{"KDE"}, "systemsettings", {"kcm_pulseaudio"}},
        {{}, "pavucontrol", {}},
        {{}, "pwvucontrol", {}},
    };
    const QStringList running = desktops.split(':', Qt::SkipEmptyParts);
    const auto ownDesktop = [&](const Candidate& c) {
        return std::any_of(c.desktops.begin(), c.desktops.end(), [&](const QString& d) {
            return running.contains(d, Qt::CaseInsensitive);
        });
    };
    // The desktop's own settings first, then a mixer, then any other desktop's settings.
    const std::vector<std::function<bool(const Candidate&)>> passes = {
        ownDesktop,
        [](const Candidate& c) { return c.desktops.isEmpty(); },
        [](const Candidate&) { return true; },
    };
    for (const auto& pass : passes) {
        for (const auto& candidate : candidates) {
            if (!pass(candidate)) {
                continue;
            }
            const QString path = find(candidate.program);
            if (!path.isEmpty()) {
                return SettingsCommand{path, candidate.arguments};
            }
        }
    }
    return std::nullopt;
}

}  // namespace bw
