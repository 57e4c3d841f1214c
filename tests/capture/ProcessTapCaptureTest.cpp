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
const std::string kOwnBundleID = "com.tallowfields.BrightwaveRecord";
constexpr AudioObjectPropertyAddress kProcessList{kAudioHardwarePropertyProcessObjectList,
                                                  kAudioObjectPropertyScopeGlobal, 0};

class TapRig {
public:
    TapRig() {
        speakers = hardware->addDevice(
            {"speakers.uid", "Speakers", FakeHardware::floatFormat(48000, 2), {}});
        workspace->setOwn(kOwnPID, kOwnBundleID);
        workspace->addApplication({kPlayerPID, "org.example.Player", "Player", true, ""});
    }
    std::shared_ptr<ProcessTapCapture> make(TapTarget target, bool mute = false) {
        return std::make_shared<ProcessTapCapture>(target, mute, hardware, workspace);
    }
    /// A capture of the player, which has played.
    std::shared_ptr<ProcessTapCapture> player() {
        hardware->addProcess(kPlayerPID, true);
        return make(TapTarget::process(kPlayerPID));
    }
    // Every platform object a capture can leave behind.
    void expectNothingLeft(const std::string& when) {
        EXPECT_TRUE(hardware->taps().empty()) << when;
        EXPECT_TRUE(hardware->aggregateDevices().empty()) << when;
        EXPECT_EQ(hardware->listenerCount(kAudioObjectSystemObject, kProcessList.mSelector), 0u)
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

// What a row sets up.
enum Setup : unsigned {
    kSystem = 1,    // the target is system audio, else the player
    kByBundle = 2,  // the hardware can tap by bundle ID
    kOwn = 4,       // our own process has a process object
    kPlayed = 8,    // the player and its helper have process objects
    kMute = 16,
    kStranger = 32,  // the target is PID 777, which nothing knows
};

struct DescriptionCase {
    const char* name;
    unsigned setup;
    std::vector<std::string> bundleIDs;
    std::size_t processCount;
    std::string error = {};  // empty when the start succeeds
    friend void PrintTo(const DescriptionCase& c, std::ostream* os) { *os << c.name; }
};

class TapDescriptionTest : public ::testing::TestWithParam<DescriptionCase> {};

TEST_P(TapDescriptionTest, DescribesTheTapForEachWayTheTargetResolves) {
    const DescriptionCase& c = GetParam();
    TapRig rig;
    const bool system = c.setup & kSystem, mute = c.setup & kMute;
    rig.hardware->setSupportsBundleIDTaps(c.setup & kByBundle);
    if (c.setup & kOwn) {
        rig.hardware->addProcess(kOwnPID, true);
    }
    if (c.setup & kPlayed) {
        rig.hardware->addProcess(kPlayerPID, true);
        rig.workspace->setParent(101, kPlayerPID);
        rig.hardware->addProcess(101, true);
        rig.hardware->addProcess(999, true);  // someone else
    }
    auto capture = rig.make(system ? TapTarget::systemAudio()
                                   : TapTarget::process(c.setup & kStranger ? 777 : kPlayerPID),
                            mute);
    auto started = capture->start();
    if (!c.error.empty()) {
        ASSERT_FALSE(started);
        EXPECT_EQ(started.error()->localizedDescription(), c.error);
        rig.expectNothingLeft(c.name);
        EXPECT_EQ(rig.hardware->callCount(HardwareOperation::createProcessTap), 0u)
            << "nothing created";
        return;
    }
    ASSERT_TRUE(started) << started.error()->localizedDescription();
    ASSERT_EQ(rig.hardware->taps().size(), 1u);
    const TapDescription tap = *rig.hardware->tapDescription(rig.hardware->taps()[0]);
    EXPECT_EQ(tap.isExclusive, system) << "system audio is everything but what it excludes";
    EXPECT_TRUE(tap.isMixdown);
    EXPECT_FALSE(tap.isMono);
    EXPECT_EQ(tap.bundleIDs, c.bundleIDs);
    EXPECT_EQ(tap.processes.size(), c.processCount);
    EXPECT_EQ(tap.name, "BrightwaveRecord Tap");
    EXPECT_TRUE(tap.isPrivate);
    EXPECT_EQ(tap.muteBehavior, mute ? TapDescription::MuteBehavior::mutedWhenTapped
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
    EXPECT_EQ(device.subDevices,
              (std::vector<AggregateDeviceDescription::SubDevice>{{"speakers.uid"}}));
    EXPECT_EQ(device.taps,
              (std::vector<AggregateDeviceDescription::SubTap>{{true, tap.uuidString}}));
    EXPECT_EQ(rig.hardware->runningIOProcCount(rig.hardware->aggregateDevices()[0]), 1u);
    capture->stop();
    rig.expectNothingLeft("after stop");
    EXPECT_EQ(rig.hardware->callCount(HardwareOperation::destroyIOProcID),
              rig.hardware->callCount(HardwareOperation::createIOProcID));
}

const std::string kNoFeedbackGuard =
    "Audio system error 560947818 during identify BrightwaveRecord for feedback prevention";
const std::string kNotPlayed =
    " has not played any audio yet. Start playback in it, then record again.";

INSTANTIATE_TEST_SUITE_P(
    Targets, TapDescriptionTest,
    ::testing::ValuesIn(std::vector<DescriptionCase>{
        {"SystemExcludesOwnProcess", kSystem | kOwn, {}, 1},
        {"SystemByBundleIDAddsOwn", kSystem | kByBundle | kOwn | kMute, {kOwnBundleID}, 1},
        {"SystemWithoutOwnObjectNeedsBundleTaps", kSystem, {}, 0, kNoFeedbackGuard},
        {"SystemWithoutOwnObjectByBundleID", kSystem | kByBundle, {kOwnBundleID}, 0},
        {"AppWithItsHelper", kPlayed | kMute, {}, 2},
        {"AppThatNeverPlayedWaitsByBundleID", kByBundle, {"org.example.Player"}, 0},
        {"AppThatNeverPlayedFails", 0, {}, 0, "Player" + kNotPlayed},
        {"AnUnknownProcessIsNamedByItsPid", kStranger, {}, 0, "PID 777" + kNotPlayed}}),
    [](const auto& info) { return std::string(info.param.name); });

struct FailureStep {
    const char* name;
    HardwareOperation operation;
    std::optional<AudioObjectPropertySelector> selector;
    OSStatus status;
    std::string during;  // what the error names
    friend void PrintTo(const FailureStep& c, std::ostream* os) { *os << c.name; }
};

class TapStartFailureTest : public ::testing::TestWithParam<FailureStep> {};

TEST_P(TapStartFailureTest, EachFailingStepLeavesNothingBehindAndAStartCanFollow) {
    const FailureStep& c = GetParam();
    TapRig rig;
    auto capture = rig.player();
    rig.hardware->failNext(c.operation, c.status, c.selector);
    auto started = capture->start();
    ASSERT_FALSE(started);
    EXPECT_EQ(started.error()->localizedDescription(),
              "Audio system error " + std::to_string(c.status) + " during " + c.during);
    rig.expectNothingLeft(c.name);
    EXPECT_EQ(rig.hardware->callCount(HardwareOperation::createIOProcID),
              rig.hardware->callCount(HardwareOperation::destroyIOProcID) +
                  (c.operation == HardwareOperation::createIOProcID ? 1u : 0u));
    EXPECT_EQ(capture->tapID(), 0u);
    EXPECT_EQ(capture->aggregateID(), 0u);
    ASSERT_TRUE(capture->start()) << "a second start works";
    capture->stop();
}

using Op = HardwareOperation;

INSTANTIATE_TEST_SUITE_P(
    Steps, TapStartFailureTest,
    ::testing::ValuesIn(std::vector<FailureStep>{
        {"CreateTap", Op::createProcessTap, {}, 2003332927, "create process tap"},
        {"TapFormat", Op::getPropertyData, kAudioTapPropertyFormat, -1, "get property 1952869748"},
        {"DefaultOutput", Op::getPropertyData, kAudioHardwarePropertyDefaultOutputDevice, 560947818,
         "get property 1682929012"},
        {"OutputUID", Op::getPropertyData, kAudioDevicePropertyDeviceUID, -2,
         "get string property 1969841184"},
        {"Aggregate", Op::createAggregateDevice, {}, -3, "create aggregate device"},
        {"DeviceRate", Op::getPropertyData, kAudioDevicePropertyNominalSampleRate, -4,
         "get property 1853059700"},
        {"IOProc", Op::createIOProcID, {}, -5, "create IO proc"},
        {"DeviceStart", Op::deviceStart, {}, -6, "start aggregate device"}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ProcessTapCaptureTest, ATapOfSixteenBitIntegersIsRefusedAndDestroyed) {
    TapRig rig;
    rig.hardware->setTapFormat(FakeHardware::int16Format(48000, 2));
    auto started = rig.player()->start();
    ASSERT_FALSE(started);
    EXPECT_EQ(started.error()->localizedDescription(),
              "Audio system error 1970171760 during unsupported tap format");
    rig.expectNothingLeft("int16 tap");
    EXPECT_EQ(rig.hardware->callCount(HardwareOperation::destroyProcessTap), 1u);
}

TEST(ProcessTapCaptureTest, StartingTwiceAndStoppingANewCaptureMakeNoHardwareCall) {
    TapRig rig;
    auto fresh = rig.player();
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
        rig.hardware->setTapFormat(FakeHardware::floatFormat(48000, 2, true));
        rig.hardware->setAggregateSampleRate(c.deviceRate);
        auto capture = rig.player();
        ASSERT_TRUE(capture->start());
        EXPECT_EQ(capture->tapFormat()->sampleRate(), c.expectedRate);
        EXPECT_TRUE(capture->tapFormat()->isInterleaved())
            << "the rest of the tap's layout is kept";
        EXPECT_EQ(capture->format(), AudioFormat::standard(c.expectedRate, 2));
    }
}

TEST(ProcessTapCaptureTest, CyclesOfEveryLayoutArriveAsTheSameSeparateChannels) {
    struct Layout {
        std::uint32_t channels;
        bool interleaved;
    };
    for (const auto& layout : std::vector<Layout>{{2, false}, {2, true}, {3, false}, {3, true}}) {
        TapRig rig;
        rig.hardware->setTapFormat(
            FakeHardware::floatFormat(48000, layout.channels, layout.interleaved));
        auto capture = rig.player();
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
        EXPECT_EQ(received, input)
            << layout.channels << (layout.interleaved ? " interleaved" : " planar");
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
    EXPECT_EQ(rig.hardware->tapDescription(tap)->processes,
              (std::vector<AudioObjectID>{player, helper}));
    EXPECT_EQ(writes(), 1u);

    // Someone else's process: the list changes, the members don't; no write.
    rig.hardware->addProcess(555, true);
    rig.hardware->notifyPropertyChanged(kAudioObjectSystemObject, kProcessList);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(writes(), 1u);

    // A refused write keeps the old list; the next change offers the same members again.
    rig.hardware->failNext(HardwareOperation::setPropertyData, -7);
    rig.hardware->removeProcess(helper);
    ASSERT_TRUE(TapRig::eventually([&] { return writes() == 2; }));
    EXPECT_EQ(capture->currentMemberObjects(), (std::vector<AudioObjectID>{player, helper}));
    rig.hardware->notifyPropertyChanged(kAudioObjectSystemObject, kProcessList);
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
    auto capture = rig.player();
    test::EventCounter reports;
    capture->setFailureHandler([&](const std::string& message) {
        EXPECT_EQ(message, "Recording stopped because audio capture could not keep up.");
        reports.signal();
    });
    const AudioObjectPropertyAddress overload{kAudioDeviceProcessorOverload,
                                              kAudioObjectPropertyScopeGlobal, 0};
    for (int start = 1; start <= 2; ++start) {
        ASSERT_TRUE(capture->start());
        rig.hardware->notifyPropertyChanged(capture->aggregateID(), overload);
        rig.hardware->notifyPropertyChanged(capture->aggregateID(), overload);
        ASSERT_TRUE(reports.waitFor(start));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_EQ(reports.count(), start);
        const AudioObjectID aggregate = capture->aggregateID();
        capture->stop();
        EXPECT_EQ(rig.hardware->listenerCount(aggregate, kAudioDeviceProcessorOverload), 0u);
    }
}

// An application that quits and starts again: followed by its bundle ID, or not at all without.
class RelaunchTest : public ::testing::TestWithParam<bool> {};

TEST_P(RelaunchTest, TheTapFollowsANewProcessOfTheSameApplicationOnly) {
    const auto bundleID =
        GetParam() ? std::optional<std::string>("org.example.Player") : std::nullopt;
    TapRig rig;
    rig.workspace->addApplication({7, "org.example.Notes", "Notes", true, ""});
    rig.workspace->addApplication({kPlayerPID, bundleID, "Player", true, ""});
    const AudioObjectID first = rig.hardware->addProcess(kPlayerPID, true);
    auto capture = rig.make(TapTarget::process(kPlayerPID));
    ASSERT_TRUE(capture->start());

    rig.hardware->removeProcess(first);
    rig.hardware->addProcess(7, true);  // another application playing meanwhile
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(capture->currentMemberObjects(), std::vector<AudioObjectID>{first});
    rig.workspace->addApplication({300, bundleID, "Player", true, ""});
    rig.workspace->setParent(301, 300);
    const AudioObjectID relaunched = rig.hardware->addProcess(300, true);
    const AudioObjectID helper = rig.hardware->addProcess(301, true);
    const std::vector<AudioObjectID> expected = bundleID
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
