#include <gtest/gtest.h>

#include <QLabel>
#include <QPushButton>
#include <QTest>

#include "interface/ContentView.h"
#include "interface/LevelMeterView.h"
#include "shell/MenuBarLabelView.h"
#include "shell/MenuBarLevelMeter.h"
#include "shell/RecordingMenuBarView.h"
#include "tests/shell/ShellRig.h"

namespace bw::test {
namespace {

using namespace std::chrono_literals;

TEST(MenuBarExtraTest, TheItemExistsExactlyWhileRecordingNotWhileStartingOrStopping) {
    ShellRig rig;
    rig.launch();
    std::vector<bool> seen;
    QObject::connect(rig.app->menuBarExtra(), &MenuBarExtra::insertedChanged,
                     [&](bool inserted) { seen.push_back(inserted); });
    EXPECT_FALSE(rig.trayShown());

    rig.startRecordingPlayer([](FakeRecordingEngine& engine) {
        engine.holdStart = true;
        engine.holdStop = true;
    });
    ASSERT_TRUE(pumpUntil([&] { return !rig.engines.made.empty(); }));
    EXPECT_TRUE(rig.state->isStartingRecording());
    EXPECT_FALSE(rig.trayShown()) << "starting";

    rig.engines.last().finishStart();
    ASSERT_TRUE(pumpUntil([&] { return rig.state->isRecording(); }));
    EXPECT_TRUE(rig.trayShown());
    // The panel learns of it over the bus.
    ASSERT_TRUE(pumpUntil([&] { return rig.trayHost->items().size() == 1; }));

    rig.state->toggleRecording();
    ASSERT_TRUE(pumpUntil([&] { return rig.state->isStoppingRecording(); }));
    EXPECT_FALSE(rig.trayShown()) << "stopping";
    EXPECT_TRUE(rig.trayHost->items().empty()) << "the item's name has left the bus";

    rig.engines.last().finishStop();
    ASSERT_TRUE(pumpUntil([&] { return !rig.state->isBusy(); }));
    EXPECT_FALSE(rig.trayShown());
    EXPECT_EQ(seen, (std::vector<bool>{true, false}));
}

TEST(MenuBarExtraTest, AFailureDuringTheRecordingRemovesTheItemAndTheMainWindowShowsIt) {
    ShellRig rig;
    rig.launch();
    rig.startRecordingPlayer();
    ASSERT_TRUE(pumpUntil([&] { return rig.trayShown(); }));
    rig.app->menuBarExtra()->openPanel({10, 10});

    rig.engines.last().reportFailure("The device went away.");
    ASSERT_TRUE(pumpUntil([&] { return !rig.state->isBusy(); }));
    EXPECT_FALSE(rig.trayShown());
    EXPECT_EQ(rig.app->menuBarExtra()->panel(), nullptr);
    EXPECT_EQ(rig.state->errorMessage(), QStringLiteral("The device went away."));
}

TEST(MenuBarExtraTest, AHostReadsTheTimeAsLabelTitleAndTooltipAndItsClickOpensThePanel) {
    ShellRig rig;
    rig.launch();
    rig.startRecordingPlayer();
    ASSERT_TRUE(pumpUntil([&] { return rig.trayHost->items().size() == 1; }));
    const FakeTrayHost& host = *rig.trayHost;
    EXPECT_EQ(host.property("IconName").toString(), "media-record");
    EXPECT_EQ(host.property("Status").toString(), "Active");
    // Seconds into the recording, the label, and the guide a host sizes the label by.
    const std::tuple<int, const char*, const char*> times[] = {
        {7, "00:07", "00:00"}, {12 * 60 + 34, "12:34", "00:00"}, {3600, "1:00:00", "0:00:00"}};
    int elapsed = 0;
    for (const auto& [seconds, shown, guide] : times) {
        rig.clock->advance(std::chrono::seconds(seconds - elapsed));
        elapsed = seconds;
        ASSERT_TRUE(pumpUntil([&] { return host.announcedLabel() == QLatin1String(shown); }))
            << shown;
        const QString named = QStringLiteral("Brightwave Record, recording, ") + shown;
        EXPECT_EQ(rig.app->menuBarExtra()->label()->accessibleLabel(), named);
        EXPECT_EQ(host.property("XAyatanaLabel").toString(), QLatin1String(shown));
        EXPECT_EQ(host.property("XAyatanaLabelGuide").toString(), QLatin1String(guide));
        EXPECT_EQ(host.property("Title").toString(), named);
        EXPECT_EQ(host.toolTipTitle(), named);
    }

    ASSERT_TRUE(host.callItem(QStringLiteral("Activate"), 40, 30));
    ASSERT_NE(rig.app->menuBarExtra()->panel(), nullptr);
    EXPECT_TRUE(rig.app->menuBarExtra()->panel()->isVisible());
    ASSERT_TRUE(host.callItem(QStringLiteral("Activate"), 40, 30));
    EXPECT_EQ(rig.app->menuBarExtra()->panel(), nullptr) << "a second click closes it";
    ASSERT_TRUE(host.callItem(QStringLiteral("ContextMenu"), 40, 30));
    EXPECT_NE(rig.app->menuBarExtra()->panel(), nullptr);
}

TEST(MenuBarExtraTest,
     ClosingTheWindowDuringARecordingHidesItWhereTheTrayOpensItAgainElseMinimises) {
    for (const bool withTray : {true, false}) {
        ShellRig rig(false, withTray);
        rig.launch();
        EXPECT_EQ(rig.app->trayHostWatch()->isAvailable(), withTray);
        rig.startRecordingPlayer();
        ASSERT_TRUE(pumpUntil([&] { return rig.state->isRecording(); }));
        const QString recording = rig.main()->contentView()->statusText();

        rig.main()->close();
        pumpFor(20);
        EXPECT_TRUE(rig.state->isRecording());
        EXPECT_EQ(rig.terminations, 0);
        if (withTray) {
            EXPECT_EQ(rig.main(), nullptr) << "the tray leads back";
            rig.app->menuBarExtra()->openPanel({40, 40});
            rig.app->menuBarExtra()->panel()->openButton()->click();
            ASSERT_NE(rig.main(), nullptr);
            EXPECT_TRUE(rig.main()->isVisible());
            EXPECT_EQ(rig.app->menuBarExtra()->panel(), nullptr);
            EXPECT_TRUE(rig.state->isRecording());
            continue;
        }
        ASSERT_NE(rig.main(), nullptr) << "nothing else would lead back";
        EXPECT_TRUE(rig.main()->isMinimized());
        // Said once: a second close minimises without a word.
        rig.app->openWindow(QStringLiteral("main"));
        rig.main()->contentView()->showStatusNotice(QString());
        rig.main()->close();
        EXPECT_TRUE(rig.main()->isMinimized());
        EXPECT_EQ(rig.main()->contentView()->statusText(), recording);

        rig.state->toggleRecording();
        ASSERT_TRUE(pumpUntil([&] { return !rig.state->isBusy(); }));
        rig.main()->close();
        ASSERT_TRUE(pumpUntil([&] { return rig.terminations == 1; })) << "idle: it ends";
    }
}

struct PanelRig : ShellRig {
    RecordingMenuBarView* panel = nullptr;
    PanelRig() {
        launch();
        startRecordingPlayer([](FakeRecordingEngine& engine) { engine.holdStop = true; });
        pumpUntil([&] { return trayShown(); });
        app->menuBarExtra()->openPanel({40, 40});
        panel = app->menuBarExtra()->panel();
    }
};

TEST(MenuBarExtraTest, ReturnInThePanelStopsOnceAndTheItemGoesBeforeTheFileIsDone) {
    PanelRig rig;
    ASSERT_NE(rig.panel, nullptr);
    EXPECT_EQ(rig.panel->width(), RecordingMenuBarView::kWidth);
    QPushButton* stop = rig.panel->stopButton();
    QTest::keyClick(rig.panel->openButton(), Qt::Key_Return);
    // A second press reaches a panel that is already closing, as a quick double press would.
    stop->click();
    ASSERT_TRUE(pumpUntil([&] { return rig.state->isStoppingRecording(); }));
    EXPECT_FALSE(rig.trayShown());
    EXPECT_EQ(rig.app->menuBarExtra()->panel(), nullptr);
    EXPECT_FALSE(rig.state->lastRecordingURL().has_value());
    rig.engines.last().finishStop();
    ASSERT_TRUE(pumpUntil([&] { return rig.state->lastRecordingURL().has_value(); }));
    EXPECT_EQ(rig.engines.last().stopCalls, 1);
}

TEST(MenuBarExtraTest, ThePanelMeterStartsAtZeroAndFollowsTheMixFromTheNextStep) {
    ShellRig rig;
    rig.launch();
    rig.tracker.update({{"master", 0.8f}});
    MenuBarLevelMeter meter(rig.tracker);
    EXPECT_EQ(meter.level(), 0.0f) << "nothing replayed";
    rig.tracker.update({{"master", 0.4f}, {"app:org.example.Player", 0.9f}});
    EXPECT_FLOAT_EQ(meter.level(), 0.4f);
    EXPECT_FLOAT_EQ(meter.meter()->level(), 0.4f);
}

}  // namespace
}  // namespace bw::test
