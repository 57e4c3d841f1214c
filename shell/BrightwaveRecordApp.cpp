#include "shell/BrightwaveRecordApp.h"

#include <QApplication>
#include <QEvent>
#include <QTimer>
#include <QWidget>

#include "app/AppIconCache.h"
#include "app/AppState.h"
#include "app/AudioLevelTracker.h"
#include "app/OnboardingController.h"
#include "app/PlatformServices.h"
#include "app/RecordingTimer.h"
#include "app/UpdaterService.h"
#include "capture/CoreAudioTapProbe.h"
#include "interface/HelpView.h"
#include "interface/OnboardingView.h"
#include "interface/SettingsView.h"
#include "interface/UpdateDialog.h"
#include "platform/workspace/DesktopMotionSetting.h"
#include "shell/MainWindow.h"
#include "shell/MenuBarExtra.h"
#include "shell/TrayHostWatch.h"

namespace bw {

BrightwaveRecordApp::Dependencies BrightwaveRecordApp::system() {
    Dependencies d;
    d.state = &AppState::shared();
    d.timer = &RecordingTimer::shared();
    d.levels = &AudioLevelTracker::shared();
    d.icons = &AppIconCache::shared();
    d.updater = &UpdaterService::shared();
    d.reduceMotion = DesktopMotionSetting::reduceMotion();
    d.makeSceneContent = [state = d.state, updater = d.updater,
                          reduceMotion = d.reduceMotion](const QString& id) -> QWidget* {
        if (id == QLatin1String("help")) {
            return new HelpView;
        }
        if (id == QLatin1String("onboarding")) {
            auto probe = std::make_shared<CoreAudioTapProbe>(PlatformServices::shared().hardware());
            auto* controller =
                new OnboardingController(std::move(probe), state->defaults(), state->clock());
            auto* onboarding = new OnboardingView(*controller);
            controller->setParent(onboarding);
            onboarding->setReduceMotion(reduceMotion);
            return onboarding;
        }
        if (id == QLatin1String("settings")) {
            return new SettingsView(*state, *updater);
        }
        return nullptr;
    };
    d.showUpdateResult = [](const UpdateCheckResult& result) {
        auto* dialog = new UpdateDialog(result);
        dialog->setAttribute(Qt::WA_DeleteOnClose);
        dialog->show();
        dialog->raise();
        dialog->activateWindow();
    };
    return d;
}

BrightwaveRecordApp::BrightwaveRecordApp(Dependencies dependencies, QObject* parent)
    : QObject(parent), dependencies_(std::move(dependencies)) {
    if (!dependencies_.terminate) {
        dependencies_.terminate = [] { QCoreApplication::quit(); };
    }
    menuBarExtra_ = new MenuBarExtra(
        *dependencies_.state, *dependencies_.timer, *dependencies_.levels,
        [this](const QString& id) { openWindow(id); }, QDBusConnection::sessionBus(), this);
    trayHostWatch_ = new TrayHostWatch(QDBusConnection::sessionBus(), this);
    if (dependencies_.showUpdateResult) {
        connect(
            dependencies_.updater, &UpdaterService::checkFinished, this,
            [this](const UpdateCheckResult& result) { dependencies_.showUpdateResult(result); });
    }
    // On a desktop without a dock nothing would lead back to a program with no window and no
    // recording, so a recording that ends with every window closed ends the program too, once
    // its file is finished.
    // The flags change one after another (a stop clears "recording" before it sets "stopping"),
    // so look once they have settled.
    connect(dependencies_.state, &AppState::isBusyChanged, this, [this] {
        QTimer::singleShot(0, this, [this] {
            if (!dependencies_.state->isBusy() && !windows_.empty()) {
                checkForLastWindow();
            }
        });
    });
}

BrightwaveRecordApp::~BrightwaveRecordApp() {
    for (auto& [id, window] : windows_) {
        if (window) {
            window->removeEventFilter(this);
            delete window.data();
        }
    }
}

QString BrightwaveRecordApp::title(const QString& id) {
    if (id == QLatin1String("help")) {
        return tr("Brightwave Record Help");
    }
    if (id == QLatin1String("onboarding")) {
        return tr("Welcome to Brightwave Record");
    }
    if (id == QLatin1String("settings")) {
        return tr("Settings");
    }
    return {};
}

QWidget* BrightwaveRecordApp::window(const QString& id) const {
    const auto found = windows_.find(id);
    return found == windows_.end() ? nullptr : found->second.data();
}

MainWindow* BrightwaveRecordApp::mainWindow() const {
    return static_cast<MainWindow*>(window(QStringLiteral("main")));
}

void BrightwaveRecordApp::openWindow(const QString& id) {
    if (id == QLatin1String("about")) {
        // About is a tab of the settings, not a window of its own.
        openWindow(QStringLiteral("settings"));
        if (auto* settings = qobject_cast<SettingsView*>(window(QStringLiteral("settings")))) {
            settings->showAbout();
        }
        return;
    }
    QWidget* shown = window(id);
    if (!shown) {
        shown = makeWindow(id);
        if (!shown) {
            return;
        }
        windows_[id] = shown;
    }
    if (shown->isMinimized()) {
        shown->showNormal();
    } else {
        shown->show();
    }
    shown->raise();
    shown->activateWindow();
}

QWidget* BrightwaveRecordApp::makeWindow(const QString& id) {
    QWidget* made = nullptr;
    if (id == QLatin1String("main")) {
        MainWindow::Services services;
        services.state = dependencies_.state;
        services.icons = dependencies_.icons;
        services.levels = dependencies_.levels;
        services.timer = dependencies_.timer;
        services.updater = dependencies_.updater;
        services.clock = dependencies_.clock;
        services.reduceMotion = dependencies_.reduceMotion;
        services.openWindow = [this](const QString& other) { openWindow(other); };
        services.quit = [this] { requestTermination(); };
        services.trayAvailable = [watch = trayHostWatch_] { return watch->isAvailable(); };
        made = new MainWindow(services);
    } else if (dependencies_.makeSceneContent) {
        made = dependencies_.makeSceneContent(id);
        if (!made) {
            return nullptr;
        }
        made->setParent(nullptr, Qt::Window);
        made->setWindowTitle(title(id));
        made->setObjectName(id);
        if (id != QLatin1String("settings")) {
            // These windows take the size of what they show.
            made->setFixedSize(made->sizeHint().expandedTo(made->minimumSize()));
        }
    } else {
        return nullptr;
    }
    made->setAttribute(Qt::WA_DeleteOnClose);
    made->installEventFilter(this);
    return made;
}

bool BrightwaveRecordApp::eventFilter(QObject* watched, QEvent* event) {
    if (event->type() == QEvent::Hide && !event->spontaneous()) {
        // Decide once the closing has run its course (a close may still be refused).
        QTimer::singleShot(0, this, &BrightwaveRecordApp::checkForLastWindow);
    }
    return QObject::eventFilter(watched, event);
}

void BrightwaveRecordApp::checkForLastWindow() {
    for (const auto& [id, window] : windows_) {
        if (window && window->isVisible()) {
            return;
        }
    }
    if (delegate_.applicationShouldTerminateAfterLastWindowClosed(*dependencies_.state)) {
        requestTermination();
    }
}

void BrightwaveRecordApp::requestTermination() {
    if (terminating_) {
        return;
    }
    terminating_ = true;
    QPointer<BrightwaveRecordApp> self(this);
    auto reply = [self](bool shouldTerminate) {
        if (self && shouldTerminate) {
            emit self->terminating();
            self->dependencies_.terminate();
        }
    };
    if (delegate_.applicationShouldTerminate(*dependencies_.state, reply) ==
        AppDelegate::TerminateReply::terminateNow) {
        reply(true);
    }
}

}  // namespace bw
