#include "capture/MicrophoneCapture.h"

#include <gtest/gtest.h>

#include "tests/support/FakeHardware.h"
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
                part.emplace_back(channel.begin() + chunk * 512,
                                  channel.begin() + (chunk + 1) * 512);
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

const std::string kNotFound = "Audio system error 560227702 during input device not found";

INSTANTIATE_TEST_SUITE_P(
    Cases, MicrophoneStartFailureTest,
    ::testing::ValuesIn(std::vector<MicFailure>{
        {"NotAttached", "gone", 48000, {}, kNotFound},
        {"FilteredOut", "BrightwaveRecord-x", 48000, {}, kNotFound},
        {"NoRate",
         "mic",
         0,
         {},
         "Audio system error 560227702 during input device has no usable format"},
        {"EngineWontStart", "mic", 48000, HardwareOperation::deviceStart,
         "The audio input device could not be started"}}),
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

}  // namespace
}  // namespace bw
