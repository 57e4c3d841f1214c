#include <gtest/gtest.h>

#include <QAction>
#include <QMenu>
#include <QTest>

#include <QMenuBar>
#include <QPushButton>
#include <QTabWidget>

#include "interface/AboutSettingsView.h"
#include "interface/ContentView.h"
#include "interface/GeneralSettingsView.h"
#include "interface/RecordButton.h"
#include "interface/SettingsView.h"
#include "shell/HelpMenuButton.h"
#include "shell/RecordingMenuBarView.h"
#include "tests/shell/ShellRig.h"

namespace bw::test {
namespace {

using namespace std::chrono_literals;

TEST(BrightwaveRecordAppTest, TheFirstLaunchOpensTheWalkthroughOverTheMainWindowOnlyOnce) {
    ShellRig rig;
    rig.app->openWindow(QStringLiteral("main"));
    ASSERT_NE(rig.app->window(QStringLiteral("onboarding")), nullptr);
    EXPECT_EQ(rig.app->window(QStringLiteral("onboarding"))->windowTitle(),
              QStringLiteral("Welcome to Brightwave Record"));
    EXPECT_EQ(rig.main()->size(), MainWindow::kDefaultSize);

    // The walkthrough marks itself done when it goes, however it goes.
    rig.state->markOnboardingCompleted();
    rig.app->window(QStringLiteral("onboarding"))->close();
    rig.main()->close();
    ASSERT_TRUE(pumpUntil([&] { return rig.terminations == 1; }));

    ShellRig nextLaunch;
    nextLaunch.defaults->setValue(AppState::kHasCompletedOnboardingKey, true);
    nextLaunch.app->openWindow(QStringLiteral("main"));
    EXPECT_EQ(nextLaunch.app->window(QStringLiteral("onboarding")), nullptr);
}

// Both are wiring from the dependencies: each row flips both, each fails a constant.
TEST(BrightwaveRecordAppTest, LessMotionReachesTheRecordKeyAndUpdatesNeedAFeed) {
    for (const bool on : {false, true}) {
        ShellRig rig(on, true, on ? QUrl("http://127.0.0.1:9/appcast.xml") : QUrl());
        rig.launch();
        EXPECT_EQ(rig.main()->contentView()->recordButton()->reduceMotion(), on);
        EXPECT_EQ(rig.main()->checkForUpdatesAction()->isEnabled(), on);
    }
}

/// The texts of `menu`'s items in order, separators as "-".
QStringList itemTexts(const QMenu* menu) {
    QStringList texts;
    for (const QAction* action : menu->actions()) {
        texts << (action->isSeparator() ? QStringLiteral("-") : action->text());
    }
    return texts;
}

TEST(BrightwaveRecordAppTest, TheMenusAreFileAndHelpAndEachItemOpensItsWindowOnce) {
    ShellRig rig;
    rig.launch();
    QStringList titles;
    std::map<QString, const QMenu*> menus;
    for (const QAction* action : rig.main()->menuBar()->actions()) {
        titles << action->text();
        menus[action->text()] = action->menu();
    }
    EXPECT_EQ(titles, QStringList({"File", "Help"}));
    EXPECT_EQ(itemTexts(menus["File"]),
              QStringList({"Start Recording", "-", "Settings…", "Check for Updates…", "-",
                           "Close Window", "Quit"}));
    EXPECT_EQ(itemTexts(menus["Help"]), QStringList({"Brightwave Record Help", "Welcome Tour…", "-",
                                                     "About Brightwave Record"}));

    HelpMenuButton* help = rig.main()->helpMenu();
    EXPECT_EQ(help->helpAction()->shortcut(), QKeySequence(QStringLiteral("Ctrl+?")));
    // Each window opens once, however often it is asked for, and follows its contents' size.
    const struct {
        QAction* item;
        const char* opens;
        const char* title;
    } items[] = {{help->helpAction(), "help", "Brightwave Record Help"},
                 {help->welcomeTourAction(), "onboarding", "Welcome to Brightwave Record"},
                 {rig.main()->settingsAction(), "settings", "Settings"}};
    for (const auto& c : items) {
        const QString id = QString::fromLatin1(c.opens);
        c.item->trigger();
        c.item->trigger();
        QWidget* window = rig.app->window(id);
        ASSERT_NE(window, nullptr) << c.opens;
        EXPECT_TRUE(window->isWindow() && window->isVisible()) << c.opens;
        EXPECT_EQ(window->windowTitle(), QString::fromLatin1(c.title));
        EXPECT_EQ(std::count(rig.madeScenes.begin(), rig.madeScenes.end(), id), 1) << c.opens;
    }
    EXPECT_EQ(rig.app->window(QStringLiteral("help"))->size(), QSize(320, 200));
    EXPECT_EQ(rig.app->window(QStringLiteral("unknown")), nullptr);
    auto* settings = qobject_cast<SettingsView*>(rig.app->window(QStringLiteral("settings")));
    ASSERT_NE(settings, nullptr);
    const auto shownTab = [&] { return settings->tabs()->currentWidget(); };
    EXPECT_EQ(shownTab(), static_cast<QWidget*>(settings->general()));
    rig.main()->aboutAction()->trigger();
    EXPECT_EQ(shownTab(), static_cast<QWidget*>(settings->about()));
    EXPECT_EQ(std::count(rig.madeScenes.begin(), rig.madeScenes.end(), "settings"), 1);
}

TEST(BrightwaveRecordAppTest, CtrlRNeedsATickAndTheRecordCommandNamesStopOnlyWhileRecording) {
    ShellRig rig;
    rig.launch();
    QAction* record = rig.main()->recordAction();
    EXPECT_EQ(record->shortcut(), QKeySequence(QStringLiteral("Ctrl+R")));
    EXPECT_EQ(record->text(), QStringLiteral("Start Recording"));

    // With nothing ticked, Ctrl+R does nothing and shows nothing.
    QTest::keyClick(rig.main(), Qt::Key_R, Qt::ControlModifier);
    pumpFor(20);
    EXPECT_TRUE(rig.engines.made.empty());
    EXPECT_FALSE(rig.state->showSelectionHint());
    EXPECT_FALSE(rig.state->errorMessage().has_value());

    rig.tick({"app:org.example.Player"});
    rig.engines.script = [](FakeRecordingEngine& engine) {
        engine.holdStart = true;
        engine.holdStop = true;
    };
    QTest::keyClick(rig.main(), Qt::Key_R, Qt::ControlModifier);
    ASSERT_TRUE(pumpUntil([&] { return !rig.engines.made.empty(); }));
    EXPECT_EQ(record->text(), QStringLiteral("Start Recording")) << "starting";
    EXPECT_TRUE(record->isEnabled());
    record->trigger();
    rig.engines.last().finishStart();
    ASSERT_TRUE(pumpUntil([&] { return rig.state->isRecording(); }));
    EXPECT_EQ(rig.engines.made.size(), 1u);
    EXPECT_EQ(record->text(), QStringLiteral("Stop Recording"));

    record->trigger();
    ASSERT_TRUE(pumpUntil([&] { return rig.state->isStoppingRecording(); }));
    EXPECT_EQ(record->text(), QStringLiteral("Start Recording")) << "stopping";
    record->trigger();
    rig.engines.last().finishStop();
    ASSERT_TRUE(pumpUntil([&] { return !rig.state->isBusy(); }));
    EXPECT_EQ(rig.engines.last().stopCalls, 1);
    EXPECT_EQ(rig.engines.made.size(), 1u);
}

// What closing the last window does in each state; a recording then ends it after its file.
TEST(BrightwaveRecordAppTest, ClosingTheLastWindowEndsTheProgramOnlyWhenNotRecording) {
    const struct {
        const char* state;
        bool holdStart;
        bool ends;
    } cases[] = {{"idle", false, true}, {"starting", true, false}, {"recording", false, false}};
    for (const auto& c : cases) {
        ShellRig rig;
        rig.launch();
        rig.app->openWindow(QStringLiteral("help"));
        if (std::string(c.state) != "idle") {
            rig.startRecordingPlayer([&](FakeRecordingEngine& e) {
                e.holdStart = c.holdStart;
                e.holdStop = true;
            });
            ASSERT_TRUE(pumpUntil([&] { return !rig.engines.made.empty(); }));
        }
        rig.main()->close();
        pumpFor(20);
        EXPECT_EQ(rig.terminations, 0) << c.state << ": the help window is still open";
        rig.app->window(QStringLiteral("help"))->close();
        pumpFor(20);
        EXPECT_EQ(rig.terminations, c.ends ? 1 : 0) << c.state;
        EXPECT_EQ(rig.trayShown(), std::string(c.state) == "recording") << c.state;
        if (rig.trayShown()) {
            // Stopped from the tray, it ends the program once the file is finished.
            rig.app->menuBarExtra()->openPanel({5, 5});
            rig.app->menuBarExtra()->panel()->stopButton()->click();
            pumpFor(20);
            EXPECT_EQ(rig.terminations, 0) << "the file isn't finished yet";
            rig.engines.last().finishStop();
            ASSERT_TRUE(pumpUntil([&] { return rig.terminations == 1; }));
            EXPECT_TRUE(rig.state->lastRecordingURL().has_value());
        }
    }
}

TEST(BrightwaveRecordAppTest, QuitDuringARecordingFinishesTheFileFirstAndAsksNothing) {
    const struct {
        const char* state;
        bool holdStart;
        bool stopFirst;
    } cases[] = {{"starting", true, false}, {"recording", false, false}, {"stopping", false, true}};
    for (const auto& c : cases) {
        ShellRig rig;
        rig.launch();
        rig.startRecordingPlayer([&](FakeRecordingEngine& engine) {
            engine.holdStart = c.holdStart;
            engine.holdStop = true;
        });
        ASSERT_TRUE(pumpUntil([&] { return !rig.engines.made.empty(); }));
        if (!c.holdStart) {
            ASSERT_TRUE(pumpUntil([&] { return rig.state->isRecording(); }));
        }
        if (c.stopFirst) {
            rig.state->toggleRecording();
            ASSERT_TRUE(pumpUntil([&] { return rig.state->isStoppingRecording(); }));
        }
        rig.main()->quitAction()->trigger();
        rig.main()->quitAction()->trigger();
        if (c.holdStart) {
            rig.engines.last().finishStart();
        }
        // Step the termination's polling until the stop has been asked for.
        ASSERT_TRUE(pumpUntil([&] {
            rig.clock->advance(10ms);
            return rig.engines.last().stopCalls == 1;
        })) << c.state;
        pumpFor(20);
        EXPECT_EQ(rig.terminations, 0) << c.state << ": still writing";
        rig.engines.last().finishStop();
        ASSERT_TRUE(pumpUntil([&] { return rig.terminations == 1; })) << c.state;
        EXPECT_TRUE(rig.state->lastRecordingURL().has_value()) << c.state;
        EXPECT_FALSE(rig.state->isBusy());
        EXPECT_EQ(rig.engines.last().stopCalls, 1) << c.state;
    }
}

}  // namespace
}  // namespace bw::test
