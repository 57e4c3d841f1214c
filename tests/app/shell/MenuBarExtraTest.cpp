#include <gtest/gtest.h>

#include <QApplication>
#include <QLabel>
#include <QPushButton>
#include <QTest>

#include "app/shell/MenuBarLabelView.h"
#include "app/shell/MenuBarLevelMeter.h"
#include "app/shell/RecordingMenuBarView.h"
#include "interface/LevelMeterView.h"
#include "tests/app/shell/ShellRig.h"
#include "tests/interface/QtUnderThreadSanitizer.h"

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
    ASSERT_NE(rig.app->menuBarExtra()->trayIcon(), nullptr);
    EXPECT_TRUE(rig.app->menuBarExtra()->trayIcon()->isVisible());

    rig.state->toggleRecording();
    ASSERT_TRUE(pumpUntil([&] { return rig.state->isStoppingRecording(); }));
    EXPECT_FALSE(rig.trayShown()) << "stopping";
    EXPECT_EQ(rig.app->menuBarExtra()->trayIcon(), nullptr);

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

TEST(MenuBarExtraTest, TheLabelAndTooltipReadTheCompactTime) {
    const struct {
        double seconds;
        const char* shown;
    } cases[] = {{7, "00:07"}, {12 * 60 + 34, "12:34"}, {3600, "1:00:00"}};
    for (const auto& c : cases) {
        ShellRig rig;
        rig.launch();
        rig.startRecordingPlayer();
        ASSERT_TRUE(pumpUntil([&] { return rig.trayShown(); }));
        rig.clock->advance(std::chrono::milliseconds(static_cast<int>(c.seconds * 1000)));
        ASSERT_TRUE(pumpUntil([&] { return rig.timer.elapsed() >= c.seconds; }));

        const MenuBarExtra& extra = *rig.app->menuBarExtra();
        const QString expected = QStringLiteral("Brightwave Record, recording, ") + c.shown;
        EXPECT_EQ(extra.label()->text(), QString::fromLatin1(c.shown));
        EXPECT_EQ(extra.label()->accessibleName(), expected);
        EXPECT_EQ(extra.trayIcon()->toolTip(), expected);
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

TEST(MenuBarExtraTest, ReturnInThePanelStopsTheRecordingAndTheItemGoesBeforeTheFileIsDone) {
    PanelRig rig;
    ASSERT_NE(rig.panel, nullptr);
    EXPECT_EQ(rig.panel->width(), RecordingMenuBarView::kWidth);
    QTest::keyClick(rig.panel->openButton(), Qt::Key_Return);
    ASSERT_TRUE(pumpUntil([&] { return rig.state->isStoppingRecording(); }));
    EXPECT_FALSE(rig.trayShown());
    EXPECT_EQ(rig.app->menuBarExtra()->panel(), nullptr);
    EXPECT_FALSE(rig.state->lastRecordingURL().has_value());
    rig.engines.last().finishStop();
    ASSERT_TRUE(pumpUntil([&] { return rig.state->lastRecordingURL().has_value(); }));
}

TEST(MenuBarExtraTest, TwoFastStopPressesEndInOneStop) {
    PanelRig rig;
    ASSERT_NE(rig.panel, nullptr);
    // The second press reaches a panel that is already closing, as a quick double click would.
    QPushButton* stop = rig.panel->stopButton();
    stop->click();
    stop->click();
    rig.engines.last().finishStop();
    ASSERT_TRUE(pumpUntil([&] { return !rig.state->isBusy(); }));
    EXPECT_EQ(rig.engines.last().stopCalls, 1);
}

TEST(MenuBarExtraTest, OpenBringsBackAClosedMainWindowWhileTheRecordingGoesOn) {
    PanelRig rig;
    rig.main()->close();
    ASSERT_TRUE(pumpUntil([&] { return rig.main() == nullptr; }));
    EXPECT_TRUE(rig.state->isRecording());
    EXPECT_EQ(rig.terminations, 0);

    rig.panel->openButton()->click();
    ASSERT_NE(rig.main(), nullptr);
    EXPECT_TRUE(rig.main()->isVisible());
    EXPECT_EQ(rig.app->menuBarExtra()->panel(), nullptr);
    EXPECT_TRUE(rig.state->isRecording());
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

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
