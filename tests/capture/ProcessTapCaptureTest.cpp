#include "capture/ProcessTapCapture.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "capture/CoreAudioError.h"
#include "capture/ProcessTapError.h"
#include "tests/support/FakeHardware.h"
#include "tests/support/FakeWorkspace.h"
#include "tests/support/GraphRig.h"

namespace bw {
namespace {

using test::FakeHardware;
using test::HardwareOperation;

constexpr std::int32_t kOwnPID = 4242;
constexpr std::int32_t kPlayerPID = 100;

class TapRig {
public:
    TapRig() {
        speakers = hardware->addDevice({"speakers.uid", "Speakers", FakeHardware::floatFormat(48000, 2), {}});
        workspace->setOwn(kOwnPID, "com.tallowfields.BrightwaveRecord");
        workspace->addApplication({kPlayerPID, "org.example.Player", "Player", true, ""});
    }
    std::shared_ptr<ProcessTapCapture> make(TapTarget target, bool mute = false) {
        return std::make_shared<ProcessTapCapture>(target, mute, hardware, workspace);
    }
    // Every platform object a capture can leave behind.
    void expectNothingLeft(const std::string& when) {
        EXPECT_TRUE(hardware->taps().empty()) << when;
        EXPECT_TRUE(hardware->aggregateDevices().empty()) << when;
        EXPECT_EQ(hardware->listenerCount(kAudioObjectSystemObject, kAudioHardwarePropertyProcessObjectList), 0u)
            << when;
    }
    template <class Predicate>
    static bool eventually(Predicate predicate) {
        for (int i = 0; i < 1000; ++i) {
            if (predicate()) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return predicate();
    }

    std::shared_ptr<FakeHardware> hardware = std::make_shared<FakeHardware>();
    std::shared_ptr<test::FakeWorkspace> workspace = std::make_shared<test::FakeWorkspace>();
    AudioObjectID speakers = 0;
};

struct DescriptionCase {
    const char* name;
    bool systemAudio;
    bool bundleTaps;
    bool ownObject;      // our own process has a process object
    bool playerPlayed;   // the player (and its helper) have process objects
    bool mute;
    // Expected:
    bool isExclusive;
    std::vector<std::string> bundleIDs;
    std::size_t processCount;
    std::string error;   // empty when the start succeeds
    friend void PrintTo(const DescriptionCase& c, std::ostream* os) { *os << c.name; }
};

class TapDescriptionTest : public ::testing::TestWithParam<DescriptionCase> {};

TEST_P(TapDescriptionTest, DescribesTheTapForEachWayTheTargetResolves) {
    const DescriptionCase& c = GetParam();
    TapRig rig;
    rig.hardware->setSupportsBundleIDTaps(c.bundleTaps);
    if (c.ownObject) {
        rig.hardware->addProcess(kOwnPID, true);
    }
    if (c.playerPlayed) {
        rig.hardware->addProcess(kPlayerPID, true);
        rig.workspace->setParent(101, kPlayerPID);
        rig.hardware->addProcess(101, true);
        rig.hardware->addProcess(999, true);  // someone else
    }
    auto capture = rig.make(c.systemAudio ? TapTarget::systemAudio() : TapTarget::process(kPlayerPID), c.mute);
    auto started = capture->start();
    if (!c.error.empty()) {
        ASSERT_FALSE(started);
        EXPECT_EQ(started.error()->localizedDescription(), c.error);
        rig.expectNothingLeft(c.name);
        EXPECT_EQ(rig.hardware->callCount(HardwareOperation::createProcessTap), 0u) << "nothing created";
        return;
    }
    ASSERT_TRUE(started) << started.error()->localizedDescription();
    ASSERT_EQ(rig.hardware->taps().size(), 1u);
    const TapDescription tap = *rig.hardware->tapDescription(rig.hardware->taps()[0]);
    EXPECT_EQ(tap.isExclusive, c.isExclusive);
    EXPECT_TRUE(tap.isMixdown);
    EXPECT_FALSE(tap.isMono);
    EXPECT_EQ(tap.bundleIDs, c.bundleIDs);
    EXPECT_EQ(tap.processes.size(), c.processCount);
    EXPECT_EQ(tap.name, "BrightwaveRecord Tap");
    EXPECT_TRUE(tap.isPrivate);
    EXPECT_EQ(tap.muteBehavior, c.mute ? TapDescription::MuteBehavior::mutedWhenTapped
                                       : TapDescription::MuteBehavior::unmuted);
    EXPECT_EQ(tap.uuidString.size(), 36u);

    ASSERT_EQ(rig.hardware->aggregateDevices().size(), 1u);
    const auto device = *rig.hardware->aggregateDescription(rig.hardware->aggregateDevices()[0]);
    EXPECT_EQ(device.name, "BrightwaveRecord Capture");
    EXPECT_EQ(device.uid.rfind("BrightwaveRecord-", 0), 0u);
    EXPECT_NE(device.uid, "BrightwaveRecord-" + tap.uuidString) << "a fresh UUID, not the tap's";
    EXPECT_EQ(device.mainSubDevice, "speakers.uid");
    EXPECT_TRUE(device.isPrivate);
    EXPECT_FALSE(device.isStacked);
    EXPECT_TRUE(device.tapAutoStart);
    EXPECT_EQ(device.subDevices, (std::vector<AggregateDeviceDescription::SubDevice>{{"speakers.uid"}}));
    EXPECT_EQ(device.taps, (std::vector<AggregateDeviceDescription::SubTap>{{true, tap.uuidString}}));
    EXPECT_EQ(rig.hardware->runningIOProcCount(rig.hardware->aggregateDevices()[0]), 1u);
    capture->stop();
    rig.expectNothingLeft("after stop");
    EXPECT_EQ(rig.hardware->callCount(HardwareOperation::destroyIOProcID),
              rig.hardware->callCount(HardwareOperation::createIOProcID));
}

INSTANTIATE_TEST_SUITE_P(
    Targets, TapDescriptionTest,
    ::testing::Values(
        DescriptionCase{"SystemExcludesOwnProcess", true, false, true, false, false, true, {}, 1, ""},
        DescriptionCase{"SystemWithBundleTapsAddsOwnBundleID", true, true, true, false, true, true,
                        {"com.tallowfields.BrightwaveRecord"}, 1, ""},
        DescriptionCase{"SystemWithoutOwnObjectNeedsBundleTaps", true, false, false, false, false,
                        true, {}, 0,
                        "Audio system error 560947818 during identify BrightwaveRecord for feedback prevention"},
        DescriptionCase{"SystemWithoutOwnObjectByBundleID", true, true, false, false, false, true,
                        {"com.tallowfields.BrightwaveRecord"}, 0, ""},
        DescriptionCase{"AppWithItsHelper", false, false, false, true, true, false, {}, 2, ""},
        DescriptionCase{"AppThatNeverPlayedWaitsByBundleID", false, true, false, false, false,
                        false, {"org.example.Player"}, 0, ""},
        DescriptionCase{"AppThatNeverPlayedFails", false, false, false, false, false, false, {}, 0,
                        "Player has not played any audio yet. Start playback in it, then record again."}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ProcessTapCaptureTest, AnUnknownProcessWithoutObjectFailsWithItsPid) {
    TapRig rig;
    auto started = rig.make(TapTarget::process(777))->start();
    ASSERT_FALSE(started);
    EXPECT_EQ(started.error()->localizedDescription(),
              "PID 777 has not played any audio yet. Start playback in it, then record again.");
}

struct FailureStep {
    const char* name;
    HardwareOperation operation;
    std::optional<AudioObjectPropertySelector> selector;
    OSStatus status;
    std::string expected;
    friend void PrintTo(const FailureStep& c, std::ostream* os) { *os << c.name; }
};

class TapStartFailureTest : public ::testing::TestWithParam<FailureStep> {};

TEST_P(TapStartFailureTest, EachFailingStepLeavesNothingBehindAndAStartCanFollow) {
    const FailureStep& c = GetParam();
    TapRig rig;
    rig.hardware->addProcess(kPlayerPID, true);
    auto capture = rig.make(TapTarget::process(kPlayerPID));
    rig.hardware->failNext(c.operation, c.status, c.selector);
    auto started = capture->start();
    ASSERT_FALSE(started);
    EXPECT_EQ(started.error()->localizedDescription(), c.expected);
    rig.expectNothingLeft(c.name);
    EXPECT_EQ(rig.hardware->callCount(HardwareOperation::createIOProcID),
              rig.hardware->callCount(HardwareOperation::destroyIOProcID) +
                  (c.operation == HardwareOperation::createIOProcID ? 1u : 0u));
    EXPECT_EQ(capture->tapID(), 0u);
    EXPECT_EQ(capture->aggregateID(), 0u);
    ASSERT_TRUE(capture->start()) << "a second start works";
    capture->stop();
}

INSTANTIATE_TEST_SUITE_P(
    Steps, TapStartFailureTest,
    ::testing::Values(
        FailureStep{"CreateTap", HardwareOperation::createProcessTap, {}, 2003332927,
                    "Audio system error 2003332927 during create process tap"},
        FailureStep{"TapFormat", HardwareOperation::getPropertyData, kAudioTapPropertyFormat, -1,
                    "Audio system error -1 during get property 1952869748"},
        FailureStep{"DefaultOutput", HardwareOperation::getPropertyData,
                    kAudioHardwarePropertyDefaultOutputDevice, 560947818,
                    "Audio system error 560947818 during get property 1682929012"},
        FailureStep{"OutputUID", HardwareOperation::getPropertyData, kAudioDevicePropertyDeviceUID, -2,
                    "Audio system error -2 during get string property 1969841184"},
        FailureStep{"Aggregate", HardwareOperation::createAggregateDevice, {}, -3,
                    "Audio system error -3 during create aggregate device"},
        FailureStep{"DeviceRate", HardwareOperation::getPropertyData,
                    kAudioDevicePropertyNominalSampleRate, -4,
                    "Audio system error -4 during get property 1853059700"},
        FailureStep{"IOProc", HardwareOperation::createIOProcID, {}, -5,
                    "Audio system error -5 during create IO proc"},
        FailureStep{"DeviceStart", HardwareOperation::deviceStart, {}, -6,
                    "Audio system error -6 during start aggregate device"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ProcessTapCaptureTest, ATapOfSixteenBitIntegersIsRefusedAndDestroyed) {
    TapRig rig;
    rig.hardware->addProcess(kPlayerPID, true);
    rig.hardware->setTapFormat(FakeHardware::int16Format(48000, 2));
    auto started = rig.make(TapTarget::process(kPlayerPID))->start();
    ASSERT_FALSE(started);
    EXPECT_EQ(started.error()->localizedDescription(),
              "Audio system error 1970171760 during unsupported tap format");
    rig.expectNothingLeft("int16 tap");
    EXPECT_EQ(rig.hardware->callCount(HardwareOperation::destroyProcessTap), 1u);
}

TEST(ProcessTapCaptureTest, StartingTwiceAndStoppingANewCaptureMakeNoHardwareCall) {
    TapRig rig;
    rig.hardware->addProcess(kPlayerPID, true);
    auto fresh = rig.make(TapTarget::process(kPlayerPID));
    rig.hardware->clearCalls();
    fresh->stop();
    EXPECT_TRUE(rig.hardware->calls().empty());
    ASSERT_TRUE(fresh->start());
    rig.hardware->clearCalls();
    ASSERT_TRUE(fresh->start());
    EXPECT_TRUE(rig.hardware->calls().empty());
}

TEST(ProcessTapCaptureTest, TheDevicesClockDecidesTheRate) {
    struct Case {
        double deviceRate;
        double expectedRate;
    };
    for (const auto& c : std::vector<Case>{{0, 48000}, {44100, 44100}, {48000, 48000}}) {
        TapRig rig;
        rig.hardware->addProcess(kPlayerPID, true);
        rig.hardware->setTapFormat(FakeHardware::floatFormat(48000, 2, true));
        rig.hardware->setAggregateSampleRate(c.deviceRate);
        auto capture = rig.make(TapTarget::process(kPlayerPID));
        ASSERT_TRUE(capture->start());
        EXPECT_EQ(capture->tapFormat()->sampleRate(), c.expectedRate);
        EXPECT_TRUE(capture->tapFormat()->isInterleaved()) << "the rest of the tap's layout is kept";
        EXPECT_EQ(capture->format(), AudioFormat::standard(c.expectedRate, 2));
    }
}

TEST(ProcessTapCaptureTest, CyclesOfEveryLayoutArriveAsTheSameSeparateChannels) {
    struct Layout {
        std::uint32_t channels;
        bool interleaved;
    };
    std::map<std::uint32_t, std::vector<std::vector<float>>> reference;
    for (const auto& layout : std::vector<Layout>{{2, false}, {2, true}, {3, false}, {3, true}}) {
        TapRig rig;
        rig.hardware->addProcess(kPlayerPID, true);
        rig.hardware->setTapFormat(FakeHardware::floatFormat(48000, layout.channels, layout.interleaved));
        auto capture = rig.make(TapTarget::process(kPlayerPID));
        ASSERT_TRUE(capture->start());
        std::vector<std::vector<float>> input(layout.channels);
        for (std::uint32_t c = 0; c < layout.channels; ++c) {
            for (int i = 0; i < 256; ++i) {
                input[c].push_back(float(c + 1) * 0.1f + float(i) * 1e-4f);
            }
        }
        std::vector<std::vector<float>> received;
        capture->setBufferHandler([&](std::shared_ptr<PCMBuffer> buffer) {
            ASSERT_EQ(buffer->format(), *AudioFormat::standard(48000, layout.channels));
            for (std::uint32_t c = 0; c < layout.channels; ++c) {
                received.emplace_back(buffer->floatChannelData()[c],
                                      buffer->floatChannelData()[c] + buffer->frameLength());
            }
        });
        rig.hardware->runIOCycle(capture->aggregateID(), 256, input);
        EXPECT_EQ(received, input) << layout.channels << (layout.interleaved ? " interleaved" : " planar");
        capture->setBufferHandler(nullptr);
        received.clear();
        rig.hardware->runIOCycle(capture->aggregateID(), 256, input);
        EXPECT_TRUE(received.empty()) << "no handler, no buffer";
    }
}

TEST(ProcessTapCaptureTest, FollowsTheApplicationsHelpersAndWritesOnlyRealChanges) {
    TapRig rig;
    const AudioObjectID player = rig.hardware->addProcess(kPlayerPID, true);
    auto capture = rig.make(TapTarget::process(kPlayerPID));
    ASSERT_TRUE(capture->start());
    const AudioObjectID tap = capture->tapID();
    auto writes = [&] { return rig.hardware->callCount(HardwareOperation::setPropertyData); };

    // A helper starts playing: it joins the tap.
    rig.workspace->setParent(101, kPlayerPID);
    const AudioObjectID helper = rig.hardware->addProcess(101, true);
    ASSERT_TRUE(TapRig::eventually([&] { return capture->currentMemberObjects().size() == 2; }));
    EXPECT_EQ(rig.hardware->tapDescription(tap)->processes, (std::vector<AudioObjectID>{player, helper}));
    EXPECT_EQ(writes(), 1u);

    // Someone else's process: the list changes, the members don't; no write.
    rig.hardware->addProcess(555, true);
    rig.hardware->notifyPropertyChanged(kAudioObjectSystemObject, {kAudioHardwarePropertyProcessObjectList, kAudioObjectPropertyScopeGlobal, 0});
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(writes(), 1u);

    // A refused write keeps the old list; the next change offers the same members again.
    rig.hardware->failNext(HardwareOperation::setPropertyData, -7);
    rig.hardware->removeProcess(helper);
    ASSERT_TRUE(TapRig::eventually([&] { return writes() == 2; }));
    EXPECT_EQ(capture->currentMemberObjects(), (std::vector<AudioObjectID>{player, helper}));
    rig.hardware->notifyPropertyChanged(kAudioObjectSystemObject, {kAudioHardwarePropertyProcessObjectList, kAudioObjectPropertyScopeGlobal, 0});
    ASSERT_TRUE(TapRig::eventually([&] { return capture->currentMemberObjects().size() == 1; }));
    EXPECT_EQ(writes(), 3u);

    // The application's last process goes: nothing is written, the capture stays up.
    rig.hardware->removeProcess(player);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(writes(), 3u);
    EXPECT_EQ(capture->currentMemberObjects(), (std::vector<AudioObjectID>{player}));
    EXPECT_EQ(rig.hardware->runningIOProcCount(capture->aggregateID()), 1u);

    capture->stop();
    rig.expectNothingLeft("after stop");
}

TEST(ProcessTapCaptureTest, AnOverloadOfItsDeviceIsReportedOncePerStart) {
    TapRig rig;
    rig.hardware->addProcess(kPlayerPID, true);
    auto capture = rig.make(TapTarget::process(kPlayerPID));
    std::vector<std::string> reports;
    std::mutex reportsLock;
    capture->setFailureHandler([&](const std::string& message) {
        std::lock_guard guard(reportsLock);
        reports.push_back(message);
    });
    auto count = [&] {
        std::lock_guard guard(reportsLock);
        return reports.size();
    };
    const AudioObjectPropertyAddress overload{kAudioDeviceProcessorOverload,
                                              kAudioObjectPropertyScopeGlobal, 0};
    for (int start = 1; start <= 2; ++start) {
        ASSERT_TRUE(capture->start());
        rig.hardware->notifyPropertyChanged(capture->aggregateID(), overload);
        rig.hardware->notifyPropertyChanged(capture->aggregateID(), overload);
        ASSERT_TRUE(TapRig::eventually([&] { return count() == std::size_t(start); }));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_EQ(count(), std::size_t(start));
        EXPECT_EQ(reports.back(), "Recording stopped because audio capture could not keep up.");
        const AudioObjectID aggregate = capture->aggregateID();
        capture->stop();
        EXPECT_EQ(rig.hardware->listenerCount(aggregate, kAudioDeviceProcessorOverload), 0u);
    }
}

// An application that quits and starts again: followed by its bundle ID, or not at all without.
class RelaunchTest : public ::testing::TestWithParam<bool> {};

TEST_P(RelaunchTest, TheTapFollowsANewProcessOfTheSameApplicationOnly) {
    const bool hasBundleID = GetParam();
    TapRig rig;
    rig.workspace->addApplication({7, "org.example.Notes", "Notes", true, ""});
    rig.workspace->addApplication(
        {kPlayerPID, hasBundleID ? std::optional<std::string>("org.example.Player") : std::nullopt,
         "Player", true, ""});
    const AudioObjectID first = rig.hardware->addProcess(kPlayerPID, true);
    auto capture = rig.make(TapTarget::process(kPlayerPID));
    ASSERT_TRUE(capture->start());

    rig.hardware->removeProcess(first);
    rig.hardware->addProcess(7, true);  // another application playing meanwhile
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(capture->currentMemberObjects(), std::vector<AudioObjectID>{first});
    rig.workspace->addApplication(
        {300, hasBundleID ? std::optional<std::string>("org.example.Player") : std::nullopt,
         "Player", true, ""});
    rig.workspace->setParent(301, 300);
    const AudioObjectID relaunched = rig.hardware->addProcess(300, true);
    const AudioObjectID helper = rig.hardware->addProcess(301, true);
    const std::vector<AudioObjectID> expected = hasBundleID
                                                    ? std::vector<AudioObjectID>{relaunched, helper}
                                                    : std::vector<AudioObjectID>{first};
    TapRig::eventually([&] { return capture->currentMemberObjects() == expected; });
    EXPECT_EQ(capture->currentMemberObjects(), expected);
    EXPECT_EQ(rig.hardware->tapDescription(capture->tapID())->processes, expected);
    capture->stop();
}

INSTANTIATE_TEST_SUITE_P(BundleID, RelaunchTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Known" : "Unknown"; });


TEST(ProcessTapCaptureTest, ATapWaitingByBundleIDTakesTheFirstProcessesThatAppear) {
    TapRig rig;
    rig.hardware->setSupportsBundleIDTaps(true);
    auto capture = rig.make(TapTarget::process(kPlayerPID));
    ASSERT_TRUE(capture->start());
    EXPECT_TRUE(capture->currentMemberObjects().empty());
    const AudioObjectID player = rig.hardware->addProcess(kPlayerPID, true);
    ASSERT_TRUE(TapRig::eventually([&] { return !capture->currentMemberObjects().empty(); }));
    const auto tap = *rig.hardware->tapDescription(capture->tapID());
    EXPECT_EQ(tap.processes, std::vector<AudioObjectID>{player});
    EXPECT_TRUE(tap.bundleIDs.empty());
}

}  // namespace
}  // namespace bw
