#include <gtest/gtest.h>

#include <QDir>
#include <QFileInfo>
#include <QSignalSpy>

#include "app/OutputNaming.h"
#include "tests/app/AppRig.h"
#include "tests/app/QtTestSupport.h"

namespace bw::test {
namespace {

using namespace std::chrono_literals;

const QString kMicrophoneDenied =
    "Microphone access was denied. Allow it in your desktop’s privacy settings, under Microphone.";

ErrorRef failureWithText(std::string text) {
    struct TextError : Error {
        std::string text;
        std::string localizedDescription() const override { return text; }
    };
    TextError error;
    error.text = std::move(text);
    return makeError(error);
}

/// A rig with one application and one microphone listed.
struct FlowRig : AppRig {
    FlowRig() {
        refreshWith({process(1, "org.example.Player", "Player")}, {{5, "usb", "USB Mic"}});
    }
    /// Records the three flags at every change of any of them.
    std::vector<std::string> flagHistory;
    void watchFlags() {
        QObject::connect(state.get(), &AppState::isBusyChanged, [this] {
            flagHistory.push_back(std::string(state->isStartingRecording() ? "S" : "-") +
                                  (state->isRecording() ? "R" : "-") +
                                  (state->isStoppingRecording() ? "T" : "-"));
        });
    }
};

TEST(RecordingFlowTest, TwoQuickPressesStartOneRecording) {
    FlowRig rig;
    rig.tick({"app:org.example.Player"});
    rig.state->toggleRecording();
    rig.state->toggleRecording();
    ASSERT_TRUE(pumpUntil([&] { return rig.state->isRecording(); }));
    pumpFor(20);
    EXPECT_EQ(rig.engines.made.size(), 1u);
    EXPECT_EQ(rig.engines.last().startCalls, 1);
    EXPECT_FALSE(rig.state->isStartingRecording());
}

TEST(RecordingFlowTest, OnlyATickedMicrophoneAsksForAccessAndARefusalEndsTheStart) {
    struct Case {
        std::vector<std::string> ticks;
        bool grant;
        int requests;
        bool records;
    };
    const Case cases[] = {
        {{"system"}, false, 0, true},
        {{"app:org.example.Player"}, false, 0, true},
        {{"system", "mic:usb"}, true, 1, true},
        {{"mic:usb"}, false, 1, false},
    };
    for (const auto& c : cases) {
        FlowRig rig;
        for (const auto& id : c.ticks) {
            rig.tick({id});
        }
        rig.grantMicrophone = c.grant;
        QCoro::waitFor(rig.state->startRecording());
        EXPECT_EQ(rig.permissionRequests, c.requests);
        EXPECT_EQ(rig.state->isRecording(), c.records);
        EXPECT_FALSE(rig.state->isStartingRecording());
        EXPECT_EQ(rig.engines.made.size(), c.records ? 1u : 0u);
        if (!c.records) {
            EXPECT_EQ(rig.state->errorMessage(), kMicrophoneDenied);
            rig.grantMicrophone = true;
            QSignalSpy errors(rig.state.get(), &AppState::errorMessageChanged);
            QCoro::waitFor(rig.state->startRecording());
            EXPECT_FALSE(rig.state->errorMessage().has_value());
            EXPECT_GE(errors.count(), 1);
        }
    }
}

TEST(RecordingFlowTest, AFailedStartShowsItsErrorKeepsNoEngineAndLeavesTheLastFileToReveal) {
    FlowRig rig;
    rig.tick({"app:org.example.Player"});
    rig.state->revealLastRecording();  // nothing recorded yet: nothing to show
    QCoro::waitFor(rig.state->startRecording());
    QCoro::waitFor(rig.state->stopRecording());
    const auto previous = rig.state->lastRecordingURL();
    ASSERT_TRUE(previous.has_value());
    rig.state->dismissSavedMessage();
    rig.state->handleEngineFailure("late failure");  // a leftover message of the last recording

    rig.engines.script = [](FakeRecordingEngine& engine) {
        engine.startResult = Unexpected(failureWithText("No audio source could be started."));
    };
    rig.state->setSaveSourceFiles(true);
    QCoro::waitFor(rig.state->startRecording());
    EXPECT_EQ(rig.state->errorMessage(), QString("No audio source could be started."));
    EXPECT_FALSE(rig.state->sessionFailureMessage().has_value());
    EXPECT_FALSE(rig.state->hasEngine());
    EXPECT_FALSE(rig.state->isBusy());
    EXPECT_EQ(rig.state->lastRecordingURL(), previous);
    // The name it had reserved is free again: no empty file is left behind.
    const auto& configuration = rig.engines.last().configuration;
    EXPECT_FALSE(QFileInfo::exists(QString::fromStdString(configuration.fileURL)));
    ASSERT_EQ(configuration.sourceFileURLs.size(), 1u);
    EXPECT_FALSE(QFileInfo::exists(configuration.sourceFileURLs.begin()->second.c_str()));
    EXPECT_TRUE(QFileInfo::exists(previous->toLocalFile()));
    rig.state->revealLastRecording();
    EXPECT_EQ(rig.viewer->selected, std::vector<QUrl>{*previous});
}

TEST(RecordingFlowTest, TheEngineGetsTheTickedSourcesVolumesFormatAndAFreshName) {
    FlowRig rig;
    rig.tick({"mic:usb", "app:org.example.Player"});
    rig.state->setVolume(rig.state->micSources()[0], 0.5f);
    rig.state->setPassthroughEnabled(true);
    rig.state->setRecordingFormatRaw("flac");  // unknown: recorded as m4a
    rig.state->setSaveSourceFiles(true);
    rig.engines.script = [](FakeRecordingEngine& engine) {
        engine.failures = {{"app:org.example.Player", "Player: tap refused"}};
    };
    QCoro::waitFor(rig.state->startRecording());

    const auto& configuration = rig.engines.last().configuration;
    EXPECT_EQ(idsOf(configuration.sources),
              (std::vector<std::string>{"app:org.example.Player", "mic:usb"}));
    EXPECT_EQ(configuration.volumes, (AppState::VolumeMap{{"mic:usb", 0.5f}}));
    EXPECT_TRUE(configuration.passthroughEnabled);
    EXPECT_EQ(configuration.format, RecordingFormat::m4a);
    const QString base =
        rig.dir.filePath("Music/BrightwaveRecord/Recording 2026-03-14 at 09.26.53");
    EXPECT_EQ(QString::fromStdString(configuration.fileURL), base + ".m4a");
    EXPECT_EQ(configuration.sourceFileURLs,
              (std::map<std::string, std::filesystem::path>{
                  {"app:org.example.Player", (base + " – Player.m4a").toStdString()},
                  {"mic:usb", (base + " – USB Mic.m4a").toStdString()}}));
    // The player did not start: its name is free again, the microphone's stays taken.
    EXPECT_FALSE(QFileInfo::exists(base + " – Player.m4a"));
    EXPECT_TRUE(QFileInfo::exists(base + " – USB Mic.m4a"));
    EXPECT_EQ(rig.state->sourceWarnings(), QStringList{"Player: tap refused"});
    EXPECT_EQ(rig.state->recordingStartDate(), rig.clock->now());
}

TEST(RecordingFlowTest, AStopSavesThenWarnsOfSilentSourcesAndRefreshes) {
    FlowRig rig;
    rig.tick({"app:org.example.Player", "mic:usb"});
    rig.engines.script = [&](FakeRecordingEngine& engine) {
        engine.failures = {{"x", "X: gone"}};
        engine.silentSources = {rig.state->micSources()[0], rig.state->appSources()[0]};
        engine.fileFailures = {"Mic: not made"};
    };
    QCoro::waitFor(rig.state->startRecording());
    EXPECT_TRUE(rig.engines.last().configuration.sourceFileURLs.empty()) << "off by default";
    EXPECT_EQ(rig.state->sourceWarnings(), (QStringList{"X: gone", "Mic: not made"}));
    rig.engines.last().fileFailures.push_back("Player: incomplete");
    rig.listings->set({}, {});
    const int refreshesBefore = rig.listings->processCalls;
    QCoro::waitFor(rig.state->stopRecording());

    const QString file = QString::fromStdString(rig.engines.last().configuration.fileURL);
    EXPECT_EQ(rig.state->lastRecordingURL(), QUrl::fromLocalFile(file));
    EXPECT_EQ(rig.state->savedMessage(),
              "Recording saved to " +
                  OutputNaming::displayPath(QUrl::fromLocalFile(QFileInfo(file).path())));
    EXPECT_EQ(
        rig.state->sourceWarnings(),
        (QStringList{
            "X: gone", "Mic: not made", "No audio was received from USB Mic during this recording.",
            "No audio was received from Player during this recording.", "Player: incomplete"}));
    EXPECT_FALSE(rig.state->hasEngine());
    EXPECT_EQ(rig.listings->processCalls, refreshesBefore + 1);
    EXPECT_TRUE(rig.state->appSources().empty());

    // Without a recording a stop does nothing at all.
    QSignalSpy busy(rig.state.get(), &AppState::isBusyChanged);
    QCoro::waitFor(rig.state->stopRecording());
    EXPECT_EQ(busy.count(), 0);
    EXPECT_EQ(rig.engines.last().stopCalls, 1);
}

TEST(RecordingFlowTest, AFailureDuringStartStopsOnceStartReturnsWithoutASavedMessage) {
    FlowRig rig;
    rig.watchFlags();
    rig.tick({"app:org.example.Player"});
    rig.engines.script = [](FakeRecordingEngine& engine) {
        engine.failureDuringStart = "The tap stopped.";
    };
    QCoro::waitFor(rig.state->startRecording());

    EXPECT_EQ(rig.engines.last().stopCalls, 1);
    EXPECT_EQ(rig.state->errorMessage(), QString("The tap stopped."));
    EXPECT_EQ(rig.state->sessionFailureMessage(), QString("The tap stopped."));
    EXPECT_FALSE(rig.state->savedMessage().has_value());
    EXPECT_TRUE(rig.state->lastRecordingURL().has_value());
    // Starting stays true through the stop that the failure caused.
    EXPECT_EQ(rig.flagHistory,
              (std::vector<std::string>{"S--", "SR-", "S--", "S-T", "S--", "---"}));
}

TEST(RecordingFlowTest, AMicrophoneQuestionNobodyAnswersIsANoAfterTenSeconds) {
    FlowRig rig;
    rig.tick({"mic:usb"});
    rig.heldPermission.emplace();
    auto start = rig.state->startRecording();
    rig.clock->advance(9900ms);
    EXPECT_TRUE(rig.state->isStartingRecording());
    rig.clock->advance(100ms);
    QCoro::waitFor(start);
    EXPECT_FALSE(rig.state->isStartingRecording());
    EXPECT_TRUE(rig.engines.made.empty());
    EXPECT_EQ(rig.state->errorMessage(), kMicrophoneDenied);
    rig.heldPermission->set(true);  // a late answer starts nothing
    pumpFor(10);
    EXPECT_FALSE(rig.state->isBusy());
    EXPECT_TRUE(rig.engines.made.empty());
}

TEST(RecordingFlowTest, QuitWhileStartingPollsEveryTenMillisecondsUntilTheStartEnds) {
    FlowRig rig;
    rig.tick({"mic:usb"});
    rig.heldPermission.emplace();
    auto start = rig.state->startRecording();
    auto quit = rig.state->stopForTermination();
    for (int step = 0; step < 5; ++step) {
        rig.clock->advance(10ms);
    }
    EXPECT_FALSE(quit.isReady());
    const auto sleeps = rig.clock->pendingSleeps();
    EXPECT_EQ(std::count(sleeps.begin(), sleeps.end(), 10ms), 1) << "the quit's one poll";

    rig.heldPermission->set(true);
    ASSERT_TRUE(pumpUntil([&] { return rig.state->isRecording(); }));
    rig.clock->advance(10ms);
    QCoro::waitFor(quit);  // what the quit then saves is the app quit test's
}

TEST(RecordingFlowTest, LevelsDecayToZeroAtTheSeventeenthStepAndTheStopEndsMetersAndTimer) {
    FlowRig rig;
    rig.tick({"app:org.example.Player"});
    QCoro::waitFor(rig.state->startRecording());
    auto& store = rig.engines.last().levels();
    QSignalSpy master(rig.tracker.publisher("master"), &LevelSubject::sent);

    store.record("app:org.example.Player", 1.0f);
    rig.clock->advance(100ms);  // the peak's step
    EXPECT_EQ(rig.tracker.levelValues().at("app:org.example.Player"), 1.0f);
    for (int step = 1; step <= 17; ++step) {
        if (step == 5) {
            store.record("master", 0.25f);
        }
        rig.clock->advance(100ms);
        const float level = rig.tracker.levelValues().at("app:org.example.Player");
        EXPECT_EQ(level == 0.0f, step == 17) << "step " << step << " level " << level;
    }
    rig.clock->advance(300ms);
    EXPECT_EQ(rig.tracker.levelValues(),
              (AudioLevelTracker::Levels{{"app:org.example.Player", 0.0f}, {"master", 0.0f}}));
    ASSERT_GE(master.count(), 1);
    EXPECT_EQ(master.first().first().toFloat(), 0.25f);
    // A new peak rises at once, above the decayed value.
    store.record("master", 0.1f);
    rig.clock->advance(100ms);
    EXPECT_EQ(rig.tracker.levelValues().at("master"), 0.1f);

    EXPECT_EQ(rig.timer.compactElapsed(), "00:02");  // counted from the start

    // The stop takes every meter to zero and ends the step; the timer keeps its time.
    master.clear();
    QCoro::waitFor(rig.state->stopRecording());
    EXPECT_TRUE(rig.tracker.levelValues().empty());
    EXPECT_EQ(rig.timer.compactElapsed(), "00:02");
    EXPECT_FALSE(rig.state->recordingStartDate().has_value());
    ASSERT_EQ(master.count(), 1);
    EXPECT_EQ(master.first().first().toFloat(), 0.0f);
    EXPECT_TRUE(rig.clock->pendingSleeps().empty());
}

}  // namespace
}  // namespace bw::test
