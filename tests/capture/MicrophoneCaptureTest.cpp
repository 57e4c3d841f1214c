#include "capture/MicrophoneCapture.h"

#include <gtest/gtest.h>

#include "capture/CaptureFactory.h"
#include "engine/RecordingEngine.h"
#include "tests/support/DecodedAudio.h"
#include "tests/support/EngineRig.h"
#include "tests/support/FakeHardware.h"
#include "tests/support/FakeWorkspace.h"
#include "tests/support/GraphRig.h"
#include "tests/support/SignalAnalysis.h"

namespace bw {
namespace {

using test::EventCounter;
using test::FakeHardware;
using test::HardwareOperation;

TEST(MicrophoneCaptureTest, DeliversTheDevicesOwnFormatForOneAndFourChannels) {
    for (std::uint32_t channels : {1u, 4u}) {
        auto hardware = std::make_shared<FakeHardware>();
        const auto mic = hardware->addDevice(
            {"mic", "Mic", {}, FakeHardware::floatFormat(44100, channels, true)});
        auto capture = std::make_shared<MicrophoneCapture>("mic", hardware);
        ASSERT_TRUE(capture->start());
        EXPECT_EQ(capture->format(), AudioFormat::standard(44100, channels));
        std::mutex mutex;
        std::vector<std::vector<float>> received(channels);
        EventCounter buffers;
        capture->setBufferHandler([&](std::shared_ptr<PCMBuffer> buffer) {
            std::lock_guard guard(mutex);
            ASSERT_EQ(buffer->format().channelCount(), channels);
            for (std::uint32_t c = 0; c < channels; ++c) {
                received[c].insert(received[c].end(), buffer->floatChannelData()[c],
                                   buffer->floatChannelData()[c] + buffer->frameLength());
            }
            buffers.signal();
        });
        std::vector<std::vector<float>> input(channels);
        for (std::uint32_t c = 0; c < channels; ++c) {
            input[c] = test::sine(300.0 * (c + 1), 44100, 2048, 0.2f);
        }
        for (int chunk = 0; chunk < 4; ++chunk) {
            std::vector<std::vector<float>> part;
            for (const auto& channel : input) {
                part.emplace_back(channel.begin() + chunk * 512, channel.begin() + (chunk + 1) * 512);
            }
            hardware->runIOCycle(mic, 512, part);
        }
        ASSERT_TRUE(buffers.waitFor(1));
        capture->stop();
        std::lock_guard guard(mutex);
        EXPECT_EQ(received, input) << channels << " channels, each copied";
    }
}

struct MicFailure {
    const char* name;
    std::string uid;
    double rate;
    std::optional<HardwareOperation> failing;
    std::string expected;
    friend void PrintTo(const MicFailure& c, std::ostream* os) { *os << c.name; }
};

class MicrophoneStartFailureTest : public ::testing::TestWithParam<MicFailure> {};

TEST_P(MicrophoneStartFailureTest, FailsWithItsReasonAndLeavesNoTap) {
    const MicFailure& c = GetParam();
    auto hardware = std::make_shared<FakeHardware>();
    hardware->addDevice({"mic", "Mic", {}, FakeHardware::floatFormat(c.rate, 1)});
    hardware->addDevice({"BrightwaveRecord-x", "Ours", {}, FakeHardware::floatFormat(48000, 1)});
    auto capture = std::make_shared<MicrophoneCapture>(c.uid, hardware);
    if (c.failing) {
        hardware->failNext(*c.failing, -9);
    }
    auto started = capture->start();
    ASSERT_FALSE(started);
    EXPECT_EQ(started.error()->localizedDescription().substr(0, c.expected.size()), c.expected);
    EXPECT_EQ(hardware->callCount(HardwareOperation::deviceStart),
              c.failing == HardwareOperation::deviceStart ? 1u : 0u);
    if (c.failing) {
        hardware->clearFailures();
        EXPECT_TRUE(capture->start()) << "the tap was removed, so a second start can tap again";
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, MicrophoneStartFailureTest,
    ::testing::Values(
        MicFailure{"NotAttached", "gone", 48000, {}, "Audio system error 560227702 during input device not found"},
        MicFailure{"FilteredOut", "BrightwaveRecord-x", 48000, {},
                   "Audio system error 560227702 during input device not found"},
        MicFailure{"NoRate", "mic", 0, {},
                   "Audio system error 560227702 during input device has no usable format"},
        MicFailure{"EngineWontStart", "mic", 48000, HardwareOperation::deviceStart,
                   "The audio input device could not be started"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(MicrophoneCaptureTest, StartingTwiceTapsOnceAndStoppingANewCaptureDoesNothing) {
    auto hardware = std::make_shared<FakeHardware>();
    const auto mic = hardware->addDevice({"mic", "Mic", {}, FakeHardware::floatFormat(48000, 1)});
    auto fresh = std::make_shared<MicrophoneCapture>("mic", hardware);
    fresh->stop();
    EXPECT_TRUE(hardware->calls().empty());
    ASSERT_TRUE(fresh->start());
    hardware->clearCalls();
    ASSERT_TRUE(fresh->start());
    EXPECT_TRUE(hardware->calls().empty());
    EXPECT_EQ(hardware->runningIOProcCount(mic), 1u);
    fresh->stop();
    EXPECT_EQ(hardware->ioProcCount(mic), 0u);
}

// The whole path on FakeHardware: an application's tap and a microphone, each at its volume,
// through the recording engine into the file.
TEST(CaptureRecordingTest, AnApplicationAndAMicrophoneLandInTheFileAtTheirVolumes) {
    auto hardware = std::make_shared<FakeHardware>();
    auto workspace = std::make_shared<test::FakeWorkspace>();
    const auto speakers = hardware->addDevice({"speakers", "Speakers", FakeHardware::floatFormat(48000, 2, true), {}});
    const auto mic = hardware->addDevice({"usb-mic", "USB Mic", {}, FakeHardware::floatFormat(44100, 1, true)});
    workspace->addApplication({100, "org.example.Player", "Player", true, ""});
    hardware->addProcess(100, true);
    hardware->setTapFormat(FakeHardware::floatFormat(48000, 2, true));

    const auto app = RecordingSource::application(100, "org.example.Player", "Player", true);
    const auto microphone = RecordingSource::microphone("usb-mic", "USB Mic");
    const auto folder = std::filesystem::temp_directory_path() / ("bw-capture-" + std::to_string(getpid()));
    std::filesystem::remove_all(folder);
    RecordingEngineConfiguration configuration{{app, microphone},
                                               {{app.id, 0.5f}, {microphone.id, 1.5f}},
                                               false,
                                               RecordingFormat::wav,
                                               folder / "take.wav",
                                               {}};
    auto engine = makeRecordingEngineFactory(hardware, workspace)(configuration);
    auto& recording = dynamic_cast<RecordingEngine&>(*engine);
    ASSERT_TRUE(test::EngineRig::start(recording));
    ASSERT_EQ(hardware->aggregateDevices().size(), 1u);
    const AudioObjectID tapDevice = hardware->aggregateDevices()[0];

    const auto music = test::sine(1000.0, 48000, 96000, 0.4f);
    const auto voice = test::sine(250.0, 44100, 88200, 0.2f);
    // The microphone's buffers reach the graph through its own engine's threads: the speakers
    // start 200 ms behind the inputs, as a device's buffering would have them.
    constexpr int kLead = 20;
    for (int step = 0; step < 200 + kLead; ++step) {
        if (step < 200) {
            const auto at = [](const std::vector<float>& v, int n, int size) {
                return std::vector<float>(v.begin() + n * size, v.begin() + (n + 1) * size);
            };
            hardware->runIOCycle(tapDevice, 480, {at(music, step, 480), at(music, step, 480)});
            hardware->runIOCycle(mic, 441, {at(voice, step, 441)});
        }
        if (step >= kLead) {
            hardware->runIOCycle(speakers, 480);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const auto url = test::EngineRig::stop(recording);
    EXPECT_TRUE(engine->sourcesWithoutAudio().empty());
    auto decoded = test::decodeAudioFile(url);
    ASSERT_TRUE(decoded);
    auto middle = std::span<const float>(decoded->channelsData[1]).subspan(24000, 43200);
    EXPECT_NEAR(test::toneLevelDb(middle, 1000.0, 48000), 20 * std::log10(0.2), 0.1);
    EXPECT_NEAR(test::toneLevelDb(middle, 250.0, 48000), 20 * std::log10(0.3), 0.1);
    std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace bw
