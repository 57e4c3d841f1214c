#include "tests/support/FakeHardware.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/dispatch/SerialQueue.h"
#include "platform/hal/AudioStringRef.h"

namespace bw::test {
namespace {

using Op = HardwareOperation;

constexpr AudioObjectPropertyAddress global(AudioObjectPropertySelector selector) {
    return {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain};
}

std::shared_ptr<SerialQueue> makeQueue(const char* name) {
    return std::make_shared<SerialQueue>(std::string("com.tallowfields.BrightwaveRecord.") + name);
}

FakeHardware::DeviceSpec speakers(const AudioStreamBasicDescription& output) {
    return {"speakers-uid", "Speakers", output, {}};
}

// Waits until every task queued so far on `queue` has run.
void drain(SerialQueue& queue) {
    queue.sync([] {});
}

// ---- Injected failures --------------------------------------------------------------------------

struct Injection {
    bool always;
    OSStatus status;
    std::optional<AudioObjectPropertySelector> selector;
};

struct FailureCase {
    const char* name;
    std::vector<Injection> injections;
    // Reads of the device's properties, in order, and the status each must give.
    std::vector<std::pair<AudioObjectPropertySelector, OSStatus>> reads;
};

class FailureTest : public ::testing::TestWithParam<FailureCase> {};

TEST_P(FailureTest, InjectedFailuresApplyToTheirCallsOnly) {
    const FailureCase& c = GetParam();
    FakeHardware hardware;
    AudioObjectID device = hardware.addDevice(speakers(FakeHardware::floatFormat(48000, 2)));
    for (const Injection& injection : c.injections) {
        if (injection.always) {
            hardware.failAlways(Op::getPropertyData, injection.status, injection.selector);
        } else {
            hardware.failNext(Op::getPropertyData, injection.status, injection.selector);
        }
    }
    for (std::size_t i = 0; i < c.reads.size(); ++i) {
        auto [selector, expected] = c.reads[i];
        std::uint8_t data[64] = {};
        std::uint32_t size = sizeof data;
        OSStatus status =
            hardware.getPropertyData(device, global(selector), 0, nullptr, size, data);
        EXPECT_EQ(status, expected) << "read " << i;
        if (selector == kAudioDevicePropertyDeviceUID && status == 0) {
            AudioStringRef reference;
            std::memcpy(&reference, data, sizeof reference);
            EXPECT_EQ(*adoptAudioString(reference), "speakers-uid");
        }
    }
    EXPECT_EQ(hardware.callCount(Op::getPropertyData), c.reads.size());
}

constexpr auto kRate = kAudioDevicePropertyNominalSampleRate;
constexpr auto kUID = kAudioDevicePropertyDeviceUID;
constexpr OSStatus kWhat = kAudioHardwareUnspecifiedError;
constexpr OSStatus kBadDevice = kAudioHardwareBadDeviceError;

INSTANTIATE_TEST_SUITE_P(
    Cases, FailureTest,
    ::testing::Values(
        FailureCase{"NextIsUsedOnce", {{false, kWhat, {}}}, {{kRate, kWhat}, {kRate, 0}}},
        FailureCase{"NextWaitsForItsSelector",
                    {{false, kWhat, kRate}},
                    {{kUID, 0}, {kRate, kWhat}, {kRate, 0}}},
        FailureCase{"QueuedInOrder",
                    {{false, kWhat, {}}, {false, kBadDevice, {}}},
                    {{kRate, kWhat}, {kUID, kBadDevice}, {kRate, 0}}},
        FailureCase{"SelectorFilterSkipsAhead",
                    {{false, kWhat, kRate}, {false, kBadDevice, kUID}},
                    {{kUID, kBadDevice}, {kRate, kWhat}, {kUID, 0}}},
        FailureCase{"AlwaysKeepsFailing",
                    {{true, kWhat, kRate}},
                    {{kRate, kWhat}, {kUID, 0}, {kRate, kWhat}}},
        FailureCase{"NextBeforeAlways",
                    {{true, kWhat, {}}, {false, kBadDevice, {}}},
                    {{kRate, kBadDevice}, {kRate, kWhat}}}),
    [](const auto& info) { return std::string(info.param.name); });

constexpr auto kDevices = kAudioHardwarePropertyDevices;

struct ListenerCase {
    const char* name;
    AudioObjectPropertySelector selector;
    bool onProcess;  // listen on the process object instead of the system object
    void (*change)(FakeHardware&, AudioObjectID process);
};

class ListenerTest : public ::testing::TestWithParam<ListenerCase> {};

TEST_P(ListenerTest, RunsOnItsQueueAndNeverAfterRemoval) {
    const ListenerCase& c = GetParam();
    FakeHardware hardware;
    AudioObjectID process = hardware.addProcess(42);
    AudioObjectID object = c.onProcess ? process : kAudioObjectSystemObject;
    auto queue = makeQueue("listener");
    drain(*queue);

    std::atomic<int> calls{0};
    std::atomic<int> offQueue{0};
    std::atomic<AudioObjectPropertySelector> seen{0};
    auto listener = std::make_shared<const AudioObjectPropertyListenerBlock>(
        [&](std::uint32_t count, const AudioObjectPropertyAddress* addresses) {
            if (!queue->isCurrent() || count != 1) {
                ++offQueue;
            }
            seen = addresses[0].mSelector;
            ++calls;
        });
    ASSERT_EQ(hardware.addPropertyListener(object, global(c.selector), queue, listener), 0);
    EXPECT_EQ(hardware.listenerCount(object, c.selector), 1u);

    c.change(hardware, process);
    drain(*queue);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(offQueue, 0);
    EXPECT_EQ(seen, c.selector);

    // A change queued behind a busy queue, then the removal: the queued call must not run.
    std::promise<void> release;
    queue->async([gate = release.get_future().share()] { gate.wait(); });
    c.change(hardware, process);
    ASSERT_EQ(hardware.removePropertyListener(object, global(c.selector), queue, listener), 0);
    release.set_value();
    drain(*queue);
    c.change(hardware, process);
    drain(*queue);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(hardware.listenerCount(object, c.selector), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ListenerTest,
    ::testing::Values(
        ListenerCase{"Notify", kRate, false,
                     [](FakeHardware& h, AudioObjectID) {
                         h.notifyPropertyChanged(kAudioObjectSystemObject, global(kRate));
                     }},
        ListenerCase{"DeviceAdded", kDevices, false,
                     [](FakeHardware& h, AudioObjectID) {
                         h.addDevice({"mic", "Mic", {}, FakeHardware::floatFormat(48000, 1)});
                     }},
        ListenerCase{"DefaultOutput", kAudioHardwarePropertyDefaultOutputDevice, false,
                     [](FakeHardware& h, AudioObjectID) { h.setDefaultOutputDevice(7); }},
        ListenerCase{"ProcessList", kAudioHardwarePropertyProcessObjectList, false,
                     [](FakeHardware& h, AudioObjectID) { h.addProcess(99); }},
        ListenerCase{"RunningOutput", kAudioProcessPropertyIsRunningOutput, true,
                     [](FakeHardware& h, AudioObjectID p) { h.setProcessRunningOutput(p, true); }}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- IO cycles ----------------------------------------------------------------------------------

class CycleThreadTest : public ::testing::TestWithParam<bool> {};

TEST_P(CycleThreadTest, BlockAndObserverRunOnTheProcsQueueOrTheCaller) {
    bool withQueue = GetParam();
    FakeHardware hardware;
    AudioObjectID device = hardware.addDevice(speakers(FakeHardware::floatFormat(48000, 2)));
    auto queue = withQueue ? makeQueue("io") : nullptr;

    std::vector<std::thread::id> observerThreads;
    std::vector<bool> observerEntering;
    hardware.setCycleObserver([&](bool entering) {
        observerThreads.push_back(std::this_thread::get_id());
        observerEntering.push_back(entering);
    });
    std::thread::id blockThread;
    bool blockOnQueue = false;
    std::vector<double> sampleTimes;
    AudioDeviceIOProcID proc = 0;
    ASSERT_EQ(hardware.createIOProcID(
                  device, queue,
                  [&](const AudioTimeStamp* now, const AudioBufferList*, const AudioTimeStamp*,
                      AudioBufferList*, const AudioTimeStamp*) {
                      blockThread = std::this_thread::get_id();
                      blockOnQueue = queue && queue->isCurrent();
                      sampleTimes.push_back(now->mSampleTime);
                  },
                  proc),
              0);
    ASSERT_EQ(hardware.deviceStart(device, proc), 0);
    hardware.runIOCycle(device, 256);
    hardware.runIOCycle(device, 256);

    EXPECT_EQ(blockOnQueue, withQueue);
    if (!withQueue) {
        // On a queue it may run on the caller's thread too: an idle queue runs a sync in place.
        EXPECT_EQ(blockThread, std::this_thread::get_id());
    }
    EXPECT_EQ(sampleTimes, (std::vector<double>{0, 256}));
    EXPECT_EQ(observerEntering, (std::vector<bool>{true, false, true, false}));
    for (auto id : observerThreads) {
        EXPECT_EQ(id, blockThread);
    }
}

TEST_P(CycleThreadTest, NoCycleStartsAfterDeviceStopReturns) {
    bool withQueue = GetParam();
    FakeHardware hardware;
    AudioObjectID device = hardware.addDevice(speakers(FakeHardware::floatFormat(48000, 2)));
    auto queue = withQueue ? makeQueue("io") : nullptr;

    // A proc made first runs first in each cycle: it holds the cycle after it has begun, while
    // the test stops the proc under test.
    std::atomic<bool> holdCycle{false};
    std::promise<void> cycleBegun;
    std::promise<void> stopped;
    auto stoppedFuture = stopped.get_future();
    AudioDeviceIOProcID probe = 0;
    ASSERT_EQ(hardware.createIOProcID(
                  device, nullptr,
                  [&](auto...) {
                      if (holdCycle) {
                          cycleBegun.set_value();
                          stoppedFuture.wait();
                      }
                  },
                  probe),
              0);
    std::atomic<int> cycles{0};
    AudioDeviceIOProcID proc = 0;
    ASSERT_EQ(hardware.createIOProcID(
                  device, queue, [&](auto...) { ++cycles; }, proc),
              0);
    ASSERT_EQ(hardware.deviceStart(device, probe), 0);
    ASSERT_EQ(hardware.deviceStart(device, proc), 0);
    hardware.runIOCycle(device, 64);
    ASSERT_EQ(cycles, 1);

    holdCycle = true;
    std::thread cycle([&] { hardware.runIOCycle(device, 64); });
    cycleBegun.get_future().wait();
    EXPECT_EQ(hardware.deviceStop(device, proc), 0);
    stopped.set_value();
    cycle.join();
    holdCycle = false;
    hardware.runIOCycle(device, 64);

    EXPECT_EQ(cycles, 1);
    EXPECT_EQ(hardware.runningIOProcCount(device), 1u);
    EXPECT_EQ(hardware.ioProcCount(device), 2u);
}

INSTANTIATE_TEST_SUITE_P(Cases, CycleThreadTest, ::testing::Values(false, true),
                         [](const auto& info) {
                             return std::string(info.param ? "OnQueue" : "OnCaller");
                         });

enum class Layout { floatSplit, floatInterleaved, int16Interleaved };

struct BufferCase {
    const char* name;
    Layout layout;
    std::uint32_t channels;
};

AudioStreamBasicDescription formatFor(const BufferCase& c) {
    switch (c.layout) {
        case Layout::floatSplit:
            return FakeHardware::floatFormat(48000, c.channels, false);
        case Layout::floatInterleaved:
            return FakeHardware::floatFormat(48000, c.channels, true);
        case Layout::int16Interleaved:
            return FakeHardware::int16Format(48000, c.channels);
    }
    return {};
}

// Reads and writes one sample at the place the layout puts it, independently of the fake.
float readSample(Layout layout, const AudioBufferList& list, std::uint32_t channels,
                 std::uint32_t channel, std::uint32_t frame) {
    switch (layout) {
        case Layout::floatSplit:
            return static_cast<const float*>(list.mBuffers[channel].mData)[frame];
        case Layout::floatInterleaved:
            return static_cast<const float*>(list.mBuffers[0].mData)[frame * channels + channel];
        case Layout::int16Interleaved:
            return float(static_cast<const std::int16_t*>(
                       list.mBuffers[0].mData)[frame * channels + channel]) /
                   32768.0f;
    }
    return 0;
}

void writeSample(Layout layout, AudioBufferList& list, std::uint32_t channels,
                 std::uint32_t channel, std::uint32_t frame, float value) {
    switch (layout) {
        case Layout::floatSplit:
            static_cast<float*>(list.mBuffers[channel].mData)[frame] = value;
            break;
        case Layout::floatInterleaved:
            static_cast<float*>(list.mBuffers[0].mData)[frame * channels + channel] = value;
            break;
        case Layout::int16Interleaved:
            static_cast<std::int16_t*>(list.mBuffers[0].mData)[frame * channels + channel] =
                std::int16_t(value * 32768.0f);
            break;
    }
}

class BufferTest : public ::testing::TestWithParam<BufferCase> {};

// Multiples of 1/256 survive 16-bit samples exactly.
float inputValue(std::uint32_t channel, std::uint32_t frame) {
    return float(int(channel * 16 + frame) - 20) / 256.0f;
}

float outputValue(std::uint32_t channel, std::uint32_t frame) {
    return float(int(frame * 8 + channel) - 30) / 256.0f;
}

TEST_P(BufferTest, InputArrivesInTheDeviceLayoutAndOutputComesBackPerChannel) {
    const BufferCase& c = GetParam();
    constexpr std::uint32_t kFrames = 8;
    FakeHardware hardware;
    auto format = formatFor(c);
    AudioObjectID device = hardware.addDevice({"duplex", "Duplex", format, format});

    // The last channel is left out (silence) and the first is short.
    std::vector<std::vector<float>> input;
    for (std::uint32_t ch = 0; ch + 1 < c.channels; ++ch) {
        std::vector<float> samples;
        for (std::uint32_t f = 0; f < (ch == 0 ? kFrames - 2 : kFrames); ++f) {
            samples.push_back(inputValue(ch, f));
        }
        input.push_back(samples);
    }
    auto expectedInput = [&](std::uint32_t ch, std::uint32_t f) {
        return ch < input.size() && f < input[ch].size() ? input[ch][f] : 0.0f;
    };

    bool split = c.layout == Layout::floatSplit;
    bool layoutOk = false;
    int wrongInputs = 0;
    AudioDeviceIOProcID proc = 0;
    ASSERT_EQ(
        hardware.createIOProcID(
            device, nullptr,
            [&](const AudioTimeStamp*, const AudioBufferList* in, const AudioTimeStamp*,
                AudioBufferList* out, const AudioTimeStamp*) {
                std::uint32_t buffers = split ? c.channels : 1;
                layoutOk = in && out && in->mNumberBuffers == buffers &&
                           out->mNumberBuffers == buffers &&
                           in->mBuffers[0].mNumberChannels == (split ? 1 : c.channels);
                if (!layoutOk) {
                    return;
                }
                for (std::uint32_t ch = 0; ch < c.channels; ++ch) {
                    for (std::uint32_t f = 0; f < kFrames; ++f) {
                        if (readSample(c.layout, *in, c.channels, ch, f) != expectedInput(ch, f)) {
                            ++wrongInputs;
                        }
                        writeSample(c.layout, *out, c.channels, ch, f, outputValue(ch, f));
                    }
                }
            },
            proc),
        0);
    ASSERT_EQ(hardware.deviceStart(device, proc), 0);
    auto output = hardware.runIOCycle(device, kFrames, input);

    ASSERT_TRUE(layoutOk);
    EXPECT_EQ(wrongInputs, 0);
    ASSERT_EQ(output.size(), c.channels);
    for (std::uint32_t ch = 0; ch < c.channels; ++ch) {
        ASSERT_EQ(output[ch].size(), kFrames);
        for (std::uint32_t f = 0; f < kFrames; ++f) {
            EXPECT_EQ(output[ch][f], outputValue(ch, f)) << "channel " << ch << " frame " << f;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, BufferTest,
    ::testing::Values(BufferCase{"FloatSplit", Layout::floatSplit, 3},
                      BufferCase{"FloatInterleaved", Layout::floatInterleaved, 3},
                      BufferCase{"Int16Interleaved", Layout::int16Interleaved, 2}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace bw::test
