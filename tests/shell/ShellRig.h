#pragma once

#include <QLabel>

#include "app/UpdaterService.h"
#include "interface/SettingsView.h"
#include "shell/BrightwaveRecordApp.h"
#include "shell/MainWindow.h"
#include "shell/MenuBarExtra.h"
#include "shell/TrayHostWatch.h"
#include "tests/app/QtTestSupport.h"
#include "tests/interface/ViewRig.h"
#include "tests/shell/FakeTrayHost.h"

namespace bw::test {

/// The application object on the fake state of `ViewRig`, with the real settings and stand-in
/// content for the other secondary windows, a `terminate` that only counts, and a tray host
/// stand-in on the session bus (the test program's private one) unless told otherwise.
struct ShellRig : ViewRig {
    std::unique_ptr<FakeTrayHost> trayHost;
    UpdaterService updater;
    int terminations = 0;
    std::vector<QString> madeScenes;
    std::unique_ptr<BrightwaveRecordApp> app;

    // Nothing listens on the feed's port; no test here starts a check.
    explicit ShellRig(bool reduceMotion = false, bool withTray = true,
                      QUrl feed = QUrl(QStringLiteral("http://127.0.0.1:9/appcast.xml")))
        : updater(feed, QStringLiteral("1.0")) {
        if (withTray) {
            trayHost = std::make_unique<FakeTrayHost>();
        }
        BrightwaveRecordApp::Dependencies d;
        d.reduceMotion = reduceMotion;
        d.state = state.get();
        d.timer = &timer;
        d.levels = &tracker;
        d.icons = &icons;
        d.updater = &updater;
        d.clock = &consoleClock;
        d.makeSceneContent = [this](const QString& id) -> QWidget* {
            madeScenes.push_back(id);
            if (id == QLatin1String("settings")) {
                return new SettingsView(*state, updater);
            }
            auto* content = new QLabel(id);
            content->setFixedSize(320, 200);
            return content;
        };
        d.terminate = [this] { ++terminations; };
        app = std::make_unique<BrightwaveRecordApp>(std::move(d));
    }

    MainWindow* main() const { return app->mainWindow(); }
    bool trayShown() const { return app->menuBarExtra()->isInserted(); }

    /// Opens the main window as at launch, with the walkthrough already done.
    /// The lists hold `listSome`; the window's own refresh at appearance has been taken in, so
    /// it can't land later over a tick.
    void launch() {
        state->markOnboardingCompleted();
        listings->set({process(1, "org.example.Player", "Player", true),
                       process(2, "org.example.Notes", "Notes")},
                      {{5, "usb", "USB Mic"}});
        const int before = listings->processCalls;
        app->openWindow(QStringLiteral("main"));
        pumpUntil([&] { return listings->processCalls > before && !state->appSources().empty(); });
        EXPECT_TRUE(!trayHost || trayHost->isRunning()) << "no session bus for the tray host";
        pumpUntil([&] { return app->trayHostWatch()->isAvailable() == bool(trayHost); });
    }

    /// Ticks the listed player and starts, the engine's start and stop as `script` holds them.
    void startRecordingPlayer(std::function<void(FakeRecordingEngine&)> script = {}) {
        tick({"app:org.example.Player"});
        engines.script = std::move(script);
        state->toggleRecording();
    }
};

}  // namespace bw::test
