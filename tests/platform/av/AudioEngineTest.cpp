#include "platform/av/AudioEngine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <span>
#include <thread>

#include "tests/support/GraphRig.h"
#include "tests/support/SignalAnalysis.h"

namespace bw {
namespace {

using test::EventCounter;
using test::FakeHardware;
using test::GraphRig;
using test::HardwareOperation;
using test::makeBuffer;

const AudioFormat kCanonical = *AudioFormat::standard(48000, 2);

double db(double linear) {
    return 20.0 * std::log10(linear);
}

// A node attached to the rig's engine and connected to `to` in `format`.
template <class Node>
std::shared_ptr<Node> attach(GraphRig& rig, const std::shared_ptr<AudioNode>& to,
                             const AudioFormat& format = kCanonical) {
    auto node = std::make_shared<Node>();
    rig.engine->attach(node);
    EXPECT_TRUE(rig.engine->connect(node, to, format));
    return node;
}

bool schedule(AudioPlayerNode& player, const std::vector<std::vector<float>>& channels,
              AudioPlayerNode::CompletionHandler done = {}, double rate = 48000) {
    return player.scheduleBuffer(makeBuffer(rate, channels),
                                 AudioPlayerNode::CompletionCallbackType::dataPlayedBack,
                                 std::move(done));
}

// Schedules `channels` on `player` in buffers of 4096 frames.
void scheduleAll(AudioPlayerNode& player, double rate,
                 const std::vector<std::vector<float>>& channels) {
    const std::size_t total = channels[0].size();
    for (std::size_t start = 0; start < total; start += 4096) {
        const std::size_t count = std::min<std::size_t>(4096, total - start);
        std::vector<std::vector<float>> chunk;
        for (const auto& channel : channels) {
            chunk.emplace_back(channel.begin() + std::ptrdiff_t(start),
                               channel.begin() + std::ptrdiff_t(start + count));
        }
        ASSERT_TRUE(schedule(player, chunk, {}, rate));
    }
}

std::span<const float> middleSecond(const std::vector<float>& samples, double rate) {
    return std::span<const float>(samples).subspan(std::size_t(rate / 2), std::size_t(rate));
}

struct ConversionCase {
    const char* name;
    double rate;
    std::vector<float> amplitudes;  // a 1 kHz sine per channel, all in phase
    float expectedLeft;
    float expectedRight;
    double deviceRate = 48000;
    float playerVolume = 1.0f;
    float globalGainDb = 0.0f;
    friend void PrintTo(const ConversionCase& c, std::ostream* os) { *os << c.name; }
};

class MixerConversionTest : public ::testing::TestWithParam<ConversionCase> {};

TEST_P(MixerConversionTest, SourceReachesTheDeviceAtItsRateAndFrequencyScaledByVolumeAndGain) {
    const ConversionCase& c = GetParam();
    GraphRig rig(c.deviceRate);
    const auto sourceFormat = *AudioFormat::standard(c.rate, std::uint32_t(c.amplitudes.size()));
    auto recordMixer = attach<AudioMixerNode>(rig, rig.engine->mainMixerNode());
    auto gain = attach<AudioUnitEQ>(rig, recordMixer, sourceFormat);
    auto player = attach<AudioPlayerNode>(rig, gain, sourceFormat);
    player->setVolume(c.playerVolume);
    gain->setGlobalGain(c.globalGainDb);

    std::vector<std::vector<float>> channels;
    for (float amplitude : c.amplitudes) {
        channels.push_back(test::sine(1000.0, c.rate, std::size_t(c.rate * 2.2), amplitude));
    }
    scheduleAll(*player, c.rate, channels);
    rig.engine->prepare();
    ASSERT_TRUE(rig.engine->start());
    player->play();
    auto out = rig.render(std::size_t(c.deviceRate * 2));
    rig.engine->stop();

    ASSERT_EQ(out.size(), 2u);
    const float expected[2] = {c.expectedLeft, c.expectedRight};
    for (int ch = 0; ch < 2; ++ch) {
        auto part = middleSecond(out[std::size_t(ch)], c.deviceRate);
        EXPECT_NEAR(test::toneLevelDb(part, 1000.0, c.deviceRate), db(expected[ch]), 0.01)
            << "channel " << ch;
        EXPECT_NEAR(test::dominantFrequency(part, c.deviceRate, 980, 1020, 1.0), 1000.0, 1.0);
        EXPECT_LE(test::peakOf(out[std::size_t(ch)]), 1.0f) << "clipped";
        // Nothing but the tone: everything else at least 60 dB down.
        EXPECT_LT(test::toneLevelDb(part, 3000.0, c.deviceRate), db(expected[ch]) - 60.0);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Inputs, MixerConversionTest,
    ::testing::Values(
        ConversionCase{"Mono44k", 44100, {0.5f}, 0.5f, 0.5f},
        ConversionCase{"FourChannels96k", 96000, {0.9f, 0.3f, 0.9f, 0.7f}, 0.9f, 0.5f},
        ConversionCase{"Stereo48kUntouched", 48000, {0.5f, 0.25f}, 0.5f, 0.25f},
        ConversionCase{"Stereo22k", 22050, {0.4f, 0.2f}, 0.4f, 0.2f},
        ConversionCase{"ThreeChannels32k", 32000, {0.6f, 0.4f, 0.2f}, 0.4f, 0.4f},
        // The main mixer converts the mix to the device's own rate.
        ConversionCase{"ToA44kDevice", 48000, {0.5f, 0.25f}, 0.5f, 0.25f, 44100},
        // Player volume (clamped to 1) and the gain stage's dB multiply.
        ConversionCase{"MinusSixDb", 48000, {0.5f}, 0.25f, 0.25f, 48000, 1.0f, -6.0206f},
        ConversionCase{"VolumeAndGain", 48000, {0.5f}, 0.6f, 0.6f, 48000, 0.8f, 3.5218f},
        ConversionCase{"VolumeAboveOneIsClamped", 48000, {0.5f}, 0.5f, 0.5f, 48000, 2.0f}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(AudioPlayerNodeTest, CompletionsArriveOnceRenderedAndStopDiscardsAndCompletesTheRest) {
    GraphRig rig;
    auto player = attach<AudioPlayerNode>(rig, rig.engine->mainMixerNode());
    EventCounter completions;
    const std::vector<float> level(1000, 0.25f);
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(schedule(*player, {level, level}, [&] { completions.signal(); }));
    }
    ASSERT_TRUE(rig.engine->start());
    player->play();
    for (std::size_t rendered = 480; rendered < 3480; rendered += 480) {
        EXPECT_FLOAT_EQ(rig.hardware->runIOCycle(rig.speakers, 480)[0][100], 0.25f);
        const int due = int(rendered / 1000);
        EXPECT_TRUE(completions.waitFor(due, std::chrono::seconds(2)));
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        EXPECT_EQ(completions.count(), due) << "after " << rendered << " frames";
    }
    // The fourth buffer is part played, the fifth not yet.
    player->stop();
    EXPECT_TRUE(completions.waitFor(5));
    player->play();
    auto after = rig.hardware->runIOCycle(rig.speakers, 480);
    EXPECT_EQ(test::peakOf(after[0]), 0.0f) << "discarded audio played";
}

TEST(AudioPlayerNodeTest, SchedulingNeedsAnEngineAndOutlivingItIsHarmless) {
    auto player = std::make_shared<AudioPlayerNode>();
    const std::vector<float> level(16, 0.5f);
    EXPECT_FALSE(schedule(*player, {level}));
    {
        GraphRig rig;
        rig.engine->attach(player);
        EXPECT_TRUE(schedule(*player, {level}));
    }
    player->stop();
    EXPECT_EQ(player->engine(), nullptr);
}

TEST(AudioMixerNodeTest, OutputVolumeZeroSilencesTheDeviceWhileTheTapStillHearsTheMix) {
    GraphRig rig;
    auto recordMixer = attach<AudioMixerNode>(rig, rig.engine->mainMixerNode());
    auto player = attach<AudioPlayerNode>(rig, recordMixer);
    rig.engine->mainMixerNode()->setOutputVolume(0.0f);

    std::mutex mutex;
    std::vector<float> tapped;
    EventCounter buffers;
    ASSERT_TRUE(recordMixer->installTap(
        0, 4096, kCanonical, [&](std::shared_ptr<PCMBuffer> buffer, AudioTimeStamp) {
            std::lock_guard lock(mutex);
            auto* left = buffer->floatChannelData()[0];
            tapped.insert(tapped.end(), left, left + buffer->frameLength());
            buffers.signal();
        }));
    auto tone = test::sine(1000.0, 48000, 48000, 0.5f);
    scheduleAll(*player, 48000, {tone, tone});
    ASSERT_TRUE(rig.engine->start());
    player->play();
    float heard = 0.0f;
    for (int cycle = 1; cycle <= 100; ++cycle) {
        auto out = rig.hardware->runIOCycle(rig.speakers, 480);
        heard = std::max({heard, test::peakOf(out[0]), test::peakOf(out[1])});
        // Keep within the tap's ring: a real device renders no faster than real time.
        ASSERT_TRUE(buffers.waitFor(cycle * 480 / 4096 - 2));
    }
    EXPECT_EQ(heard, 0.0f);
    ASSERT_TRUE(buffers.waitFor(11));
    recordMixer->removeTap(0);
    std::lock_guard lock(mutex);
    ASSERT_GE(tapped.size(), 11u * 4096);
    EXPECT_NEAR(
        test::toneLevelDb(std::span<const float>(tapped).subspan(4096, 32768), 1000.0, 48000),
        db(0.5), 0.01);
    // The tap hands over the mix frame for frame, in order.
    for (std::size_t i = 0; i < 11 * 4096; ++i) {
        ASSERT_FLOAT_EQ(tapped[i], tone[i]) << "frame " << i;
    }
}

TEST(AudioMixerNodeTest, NoTapBlockStartsAfterRemoveTapReturns) {
    GraphRig rig;
    auto recordMixer = attach<AudioMixerNode>(rig, rig.engine->mainMixerNode());
    ASSERT_TRUE(rig.engine->start());
    std::atomic<bool> rendering{true};
    std::thread renderer([&] {
        while (rendering) {
            rig.hardware->runIOCycle(rig.speakers, 256);
        }
    });
    for (int round = 0; round < 20; ++round) {
        std::atomic<bool> removed{false};
        std::atomic<int> lateCalls{0};
        EventCounter calls;
        ASSERT_TRUE(recordMixer->installTap(
            0, 256, kCanonical, [&](std::shared_ptr<PCMBuffer>, AudioTimeStamp) {
                if (removed)
                    lateCalls++;
                std::this_thread::sleep_for(std::chrono::microseconds(200));
                calls.signal();
            }));
        EXPECT_TRUE(calls.waitFor(2));
        recordMixer->removeTap(0);
        removed = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        EXPECT_EQ(lateCalls.load(), 0) << "round " << round;
    }
    rendering = false;
    renderer.join();
}

TEST(AudioMixerNodeTest, OneTapInTheOutputsFormatAndIfItFallsBehindItSaysSoOnce) {
    GraphRig rig;
    auto recordMixer = attach<AudioMixerNode>(rig, rig.engine->mainMixerNode());
    ASSERT_TRUE(rig.engine->start());
    const auto slow = [](std::shared_ptr<PCMBuffer>, AudioTimeStamp) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    };
    EXPECT_FALSE(recordMixer->installTap(0, 256, *AudioFormat::standard(44100, 2), slow));
    EXPECT_FALSE(recordMixer->installTap(0, 256, *AudioFormat::standard(48000, 1), slow));
    EXPECT_FALSE(recordMixer->installTap(1, 256, kCanonical, slow));
    std::atomic<int> told{0};
    ASSERT_TRUE(recordMixer->installTap(0, 256, kCanonical, slow, [&] { ++told; }));
    EXPECT_FALSE(recordMixer->installTap(0, 256, kCanonical, slow)) << "second tap on bus 0";
    // Two bursts of 40 buffers, each far more than the tap's eight buffers of room.
    for (int burst = 0; burst < 2; ++burst) {
        for (int cycle = 0; cycle < 40; ++cycle) {
            rig.hardware->runIOCycle(rig.speakers, 256);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    recordMixer->removeTap(0);
    EXPECT_GT(recordMixer->tapDroppedFrames(), 0u);
    EXPECT_EQ(told.load(), 1);
}

struct StartFailureCase {
    const char* name;
    HardwareOperation operation;  // the failing call; getPropertyData stands for "no device"
    OSStatus status;
    friend void PrintTo(const StartFailureCase& c, std::ostream* os) { *os << c.name; }
};

class EngineStartFailureTest : public ::testing::TestWithParam<StartFailureCase> {};

TEST_P(EngineStartFailureTest, FailsWithTheStatusAndLeavesNoIOProc) {
    const StartFailureCase& c = GetParam();
    GraphRig rig;
    rig.engine->mainMixerNode();
    if (c.operation == HardwareOperation::getPropertyData) {
        rig.hardware->failAlways(c.operation, c.status, kAudioHardwarePropertyDefaultOutputDevice);
    } else {
        rig.hardware->failNext(c.operation, c.status);
    }
    auto started = rig.engine->start();
    ASSERT_FALSE(started);
    EXPECT_EQ(started.error().code(), c.status);
    EXPECT_NE(started.error().localizedDescription().find(std::to_string(c.status)),
              std::string::npos)
        << started.error().localizedDescription();
    EXPECT_FALSE(rig.engine->isRunning());
    EXPECT_EQ(rig.hardware->ioProcCount(rig.speakers), 0u);
    rig.hardware->clearFailures();
    EXPECT_TRUE(rig.engine->start()) << "a later start works";
}

INSTANTIATE_TEST_SUITE_P(
    Steps, EngineStartFailureTest,
    ::testing::ValuesIn(std::vector<StartFailureCase>{
        {"NoOutputDevice", HardwareOperation::getPropertyData, kAudioHardwareBadObjectError},
        {"IOProcRefused", HardwareOperation::createIOProcID, kAudioHardwareIllegalOperationError},
        {"DeviceWontStart", HardwareOperation::deviceStart, -50}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(AudioEngineTest, OnlyItsOutputDeviceGoingAwayStopsTheEngineAndNotifiesOnce) {
    GraphRig rig;
    rig.engine->mainMixerNode();
    EventCounter changes;
    auto token = rig.engine->addConfigurationChangeObserver([&] { changes.signal(); });
    ASSERT_TRUE(rig.engine->start());
    rig.hardware->addDevice({"usb", "USB", FakeHardware::floatFormat(48000, 2), {}});
    EXPECT_FALSE(changes.waitFor(1, std::chrono::milliseconds(200))) << "an unrelated device";
    rig.hardware->removeDevice(rig.speakers);
    ASSERT_TRUE(changes.waitFor(1));
    EXPECT_FALSE(rig.engine->isRunning());
    // A stopped engine posts nothing more.
    rig.hardware->setDefaultOutputDevice(
        rig.hardware->addDevice({"hdmi", "HDMI", FakeHardware::floatFormat(48000, 2), {}}));
    EXPECT_FALSE(changes.waitFor(2, std::chrono::milliseconds(200)));
    rig.engine->removeConfigurationChangeObserver(token);
}

TEST(AudioInputNodeTest, ReadsTheChosenDeviceAtItsOwnFormatInTapSizedBuffers) {
    auto hardware = std::make_shared<FakeHardware>();
    hardware->addDevice({"builtin-mic", "Built-in", {}, FakeHardware::floatFormat(48000, 2, true)});
    const auto usbMic =
        hardware->addDevice({"usb-mic", "USB Mic", {}, FakeHardware::floatFormat(44100, 1, true)});
    AudioEngine engine(hardware);
    auto input = engine.inputNode();
    EXPECT_EQ(input->inputFormatForBus(0).sampleRate(), 48000) << "the default input at first";
    AudioDeviceID device = usbMic;
    ASSERT_EQ(input->audioUnit()->setProperty(kAudioOutputUnitProperty_CurrentDevice,
                                              kAudioUnitScope_Global, 0, &device, sizeof device),
              0);
    const AudioFormat format = input->inputFormatForBus(0);
    EXPECT_EQ(format.sampleRate(), 44100);
    EXPECT_EQ(format.channelCount(), 1u);

    std::mutex mutex;
    std::vector<float> captured;
    EventCounter buffers;
    ASSERT_TRUE(
        input->installTap(0, 2048, format, [&](std::shared_ptr<PCMBuffer> buffer, AudioTimeStamp) {
            EXPECT_EQ(buffer->frameLength(), 2048u);
            EXPECT_EQ(buffer->format(), format);
            std::lock_guard lock(mutex);
            captured.insert(captured.end(), buffer->floatChannelData()[0],
                            buffer->floatChannelData()[0] + buffer->frameLength());
            buffers.signal();
        }));
    ASSERT_TRUE(engine.start());
    auto voice = test::sine(440.0, 44100, 4096, 0.3f);
    for (std::size_t start = 0; start < voice.size(); start += 512) {
        hardware->runIOCycle(usbMic, 512,
                             {std::vector<float>(voice.begin() + std::ptrdiff_t(start),
                                                 voice.begin() + std::ptrdiff_t(start + 512))});
    }
    ASSERT_TRUE(buffers.waitFor(2));
    input->removeTap(0);
    engine.stop();
    std::lock_guard lock(mutex);
    EXPECT_EQ(captured, voice);
}

TEST(AudioInputNodeTest, UnusableDevicesAreRefusedAndNoHardwareMeansNoUnit) {
    auto hardware = std::make_shared<FakeHardware>();
    const auto speakers =
        hardware->addDevice({"speakers", "Speakers", FakeHardware::floatFormat(48000, 2), {}});
    AudioEngine engine(hardware);
    for (AudioDeviceID device : {AudioDeviceID(9999), AudioDeviceID(speakers)}) {
        EXPECT_EQ(engine.inputNode()->audioUnit()->setProperty(
                      kAudioOutputUnitProperty_CurrentDevice, kAudioUnitScope_Global, 0, &device,
                      sizeof device),
                  kAudioHardwareBadDeviceError)
            << device;
    }
    EXPECT_EQ(engine.inputNode()->inputFormatForBus(0).channelCount(), 0u) << "no input device";
    AudioEngine detached(nullptr);
    EXPECT_EQ(detached.inputNode()->audioUnit(), nullptr);
    EXPECT_FALSE(detached.start());
}

}  // namespace
}  // namespace bw
