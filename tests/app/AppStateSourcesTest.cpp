#include <gtest/gtest.h>

#include <thread>

#include <QSignalSpy>
#include <cmath>

#include "tests/app/AppRig.h"
#include "tests/app/QtTestSupport.h"

namespace bw::test {
namespace {

using namespace std::chrono_literals;
using IDs = AppState::SourceIDSet;

TEST(AppStateSourcesTest, RefreshBuildsSourcesInListingOrderAndKeepsTheFirstOfAnID) {
    AppRig rig;
    QSignalSpy apps(rig.state.get(), &AppState::appSourcesChanged);
    QSignalSpy mics(rig.state.get(), &AppState::micSourcesChanged);
    QSignalSpy ticks(rig.state.get(), &AppState::selectedSourceIDsChanged);
    rig.refreshWith(
        {process(40, "org.example.Player", "Player", true), process(7, std::nullopt, "helper"),
         process(41, "org.example.Player", "Player (2)", false)},
        {{3, "usb-mic", "USB Mic"}, {4, "usb-mic", "USB Mic again"}});

    const auto& appSources = rig.state->appSources();
    ASSERT_EQ(idsOf(appSources), (std::vector<std::string>{"app:org.example.Player", "app:pid:7"}));
    EXPECT_EQ(appSources[0].name, "Player");
    EXPECT_TRUE(appSources[0].isActive);
    EXPECT_FALSE(appSources[1].isActive);
    EXPECT_EQ(idsOf(rig.state->micSources()),
              (std::vector<std::string>{"mic:usb-mic", "mic:usb-mic"}));
    EXPECT_TRUE(rig.state->micSources()[0].isActive);

    // Every accepted refresh assigns all three fields, also when nothing changes.
    rig.refreshWith({process(40, "org.example.Player", "Player", true)});
    EXPECT_EQ(apps.count(), 2);
    EXPECT_EQ(mics.count(), 2);
    EXPECT_EQ(ticks.count(), 2);
}

TEST(AppStateSourcesTest, TicksExcludeSystemAudioAndApplicationsWhileMicrophonesCombine) {
    struct Case {
        std::vector<std::string> toggles;
        IDs ticked;
        std::vector<std::string> selectedOrder;
    };
    const Case cases[] = {
        {{"app:b", "app:a"}, {"app:a", "app:b"}, {"app:a", "app:b"}},
        {{"app:a", "system"}, {"system"}, {"system"}},
        {{"system", "app:b"}, {"app:b"}, {"app:b"}},
        {{"mic:m", "system", "app:a"}, {"mic:m", "app:a"}, {"app:a", "mic:m"}},
        {{"system", "mic:m"}, {"system", "mic:m"}, {"system", "mic:m"}},
        {{"app:a", "app:a"}, {}, {}},
    };
    for (const auto& c : cases) {
        AppRig rig;
        rig.refreshWith({process(1, "a", "A"), process(2, "b", "B")}, {{9, "m", "Mic"}});
        for (const auto& id : c.toggles) {
            rig.tick({id});
        }
        EXPECT_EQ(rig.state->selectedSourceIDs(), c.ticked);
        EXPECT_EQ(idsOf(rig.state->selectedSources()), c.selectedOrder);
    }
}

TEST(AppStateSourcesTest, RefreshDropsTicksOfSourcesThatLeftAndKeepsTheirVolumes) {
    AppRig rig;
    rig.refreshWith({process(1, "a", "A"), process(2, std::nullopt, "B")}, {{9, "m", "Mic"}});
    rig.tick({"app:a", "app:pid:2", "mic:m"});
    rig.state->setVolume(rig.state->appSources()[0], 0.4f);

    rig.refreshWith({process(3, std::nullopt, "B")}, {{9, "m", "Mic"}});
    EXPECT_EQ(rig.state->selectedSourceIDs(), (IDs{"mic:m"}));  // B relaunched: a new id
    EXPECT_FLOAT_EQ(rig.state->volume("app:a"), 0.4f);

    rig.refreshWith({process(4, "a", "A")});
    EXPECT_TRUE(rig.state->selectedSourceIDs().empty());
    EXPECT_FLOAT_EQ(rig.state->volume(rig.state->appSources()[0].id), 0.4f);

    rig.tick({"system"});
    rig.refreshWith({});
    EXPECT_EQ(rig.state->selectedSourceIDs(), (IDs{"system"}));
}

TEST(AppStateSourcesTest, VolumesAreClampedAndReachTheRunningEngine) {
    struct Case {
        float given, stored;
    };
    AppRig rig;
    rig.refreshWith({process(1, "a", "A")});
    const auto app = rig.state->appSources()[0];
    for (const auto& c :
         {Case{2.0f, 1.5f}, Case{-0.3f, 0.0f}, Case{NAN, 1.0f}, Case{INFINITY, 1.0f},
          Case{-INFINITY, 1.0f}, Case{1.25f, 1.25f}, Case{0.0f, 0.0f}}) {
        rig.state->setVolume(app, c.given);
        EXPECT_EQ(rig.state->volume("app:a"), c.stored) << c.given;
    }
    EXPECT_EQ(rig.state->volume("app:never"), 1.0f);

    rig.tick({"app:a"});
    QCoro::waitFor(rig.state->startRecording());
    EXPECT_EQ(rig.engines.last().configuration.volumes.at("app:a"), 0.0f);
    rig.state->setVolume(app, 7.0f);
    EXPECT_EQ(rig.engines.last().volumeChanges,
              (std::vector<std::pair<std::string, float>>{{"app:a", 1.5f}}));
}

TEST(AppStateSourcesTest, RefreshesAndTicksAreFrozenWhileBusyAndThePruneFollowsTheStop) {
    AppRig rig;
    rig.refreshWith({process(1, "a", "A"), process(2, "b", "B")});
    rig.tick({"app:a", "app:b"});
    rig.engines.script = [](FakeRecordingEngine& engine) { engine.holdStop = true; };

    // A refresh that began while idle and returns during the recording is thrown away.
    rig.listings->set({process(1, "a", "A")}, {});
    rig.listings->hold();
    auto lateRefresh = rig.state->refreshSources();
    QCoro::waitFor(rig.state->startRecording());
    ASSERT_TRUE(rig.state->isRecording());
    rig.listings->release();
    QCoro::waitFor(lateRefresh);
    EXPECT_EQ(rig.state->appSources().size(), 2u);

    rig.tick({"app:a"});  // ignored while recording
    auto stopping = rig.state->stopRecording();
    ASSERT_TRUE(rig.state->isStoppingRecording());
    rig.tick({"app:b"});  // ignored while stopping
    QCoro::waitFor(rig.state->refreshSources());
    EXPECT_EQ(rig.state->selectedSourceIDs(), (IDs{"app:a", "app:b"}));

    rig.engines.last().finishStop();
    QCoro::waitFor(stopping);
    EXPECT_EQ(idsOf(rig.state->appSources()), std::vector<std::string>{"app:a"});
    EXPECT_EQ(rig.state->selectedSourceIDs(), (IDs{"app:a"}));
}

TEST(AppStateSourcesTest, PeriodicRefreshRunsEveryFiveSecondsPlusItsOwnTime) {
    AppRig rig;
    rig.state->startSourceRefreshTimer();
    rig.state->startSourceRefreshTimer();  // one task only
    EXPECT_EQ(rig.clock->pendingSleeps(), std::vector<std::chrono::milliseconds>{5000ms});

    rig.listings->hold();
    rig.clock->advance(4999ms);
    EXPECT_EQ(rig.listings->processCalls, 0);
    rig.clock->advance(1ms);
    ASSERT_TRUE(pumpUntil([&] { return rig.listings->processCalls == 1; }));
    rig.clock->advance(20s);  // the refresh still runs: no sleep until it ends
    EXPECT_EQ(rig.listings->processCalls, 1);
    EXPECT_TRUE(rig.clock->pendingSleeps().empty());

    rig.listings->set({process(1, "a", "A")}, {});
    rig.listings->release();
    ASSERT_TRUE(pumpUntil([&] { return !rig.clock->pendingSleeps().empty(); }));
    EXPECT_EQ(rig.state->appSources().size(), 1u);
    rig.clock->advance(5s);
    ASSERT_TRUE(pumpUntil([&] { return !rig.clock->pendingSleeps().empty(); }));
    EXPECT_EQ(rig.listings->processCalls, 2);

    // The window closes, then comes back: a new period from then on.
    rig.state->stopSourceRefreshTimer();
    EXPECT_TRUE(rig.clock->pendingSleeps().empty());
    rig.clock->advance(60s);
    EXPECT_EQ(rig.listings->processCalls, 2);
    rig.state->startSourceRefreshTimer();
    EXPECT_EQ(rig.clock->pendingSleeps(), std::vector<std::chrono::milliseconds>{5000ms});
}

TEST(AppStateSourcesTest, TheServersWordOfAChangeRefreshesSoonOnceWhileAWindowShowsTheLists) {
    AppRig rig;
    auto announceFromAnotherThread = [&](int times) {
        std::thread([&] {
            for (int i = 0; i < times; ++i) {
                rig.announceSourceChange();
            }
        }).join();
        QCoreApplication::processEvents();
    };
    ASSERT_TRUE(rig.announceSourceChange);
    announceFromAnotherThread(1);  // no window: the periodic refresh isn't running
    EXPECT_TRUE(rig.clock->pendingSleeps().empty());

    rig.state->startSourceRefreshTimer();
    rig.listings->set({process(1, "a", "A")}, {});
    announceFromAnotherThread(3);  // a burst: one refresh
    EXPECT_EQ(rig.clock->pendingSleeps(), (std::vector<std::chrono::milliseconds>{5000ms, 250ms}));
    rig.clock->advance(249ms);
    EXPECT_EQ(rig.listings->processCalls, 0);
    rig.clock->advance(1ms);
    ASSERT_TRUE(pumpUntil([&] { return rig.state->appSources().size() == 1u; }));
    EXPECT_EQ(rig.listings->processCalls, 1);
    announceFromAnotherThread(1);  // the last one is done: a new change brings a new refresh
    rig.clock->advance(250ms);
    ASSERT_TRUE(pumpUntil([&] { return rig.listings->processCalls == 2; }));
}

TEST(AppStateSourcesTest, SelectionHintStaysUntilThreeSecondsAfterTheLastFlash) {
    AppRig rig;
    std::vector<bool> shown;
    QObject::connect(rig.state.get(), &AppState::showSelectionHintChanged,
                     [&] { shown.push_back(rig.state->showSelectionHint()); });
    rig.state->flashSelectionHint();
    rig.clock->advance(2s);
    rig.state->flashSelectionHint();
    rig.clock->advance(2999ms);
    EXPECT_TRUE(rig.state->showSelectionHint());
    rig.clock->advance(1ms);
    EXPECT_FALSE(rig.state->showSelectionHint());
    // The cancelled first timer never wrote.
    EXPECT_EQ(shown, (std::vector<bool>{true, true, false}));
}

}  // namespace
}  // namespace bw::test
