#include "tests/support/FakeHardware.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/dispatch/SerialQueue.h"

// The engine and capture tests run on this fake and catch, through the product, a failure that
// isn't injected or a change that isn't announced. What they can't see is kept here: the threads
// that listeners and IO blocks run on, that nothing runs after its removal or stop, the cycle
// observer that the realtime test relies on, and the sample layouts.

namespace bw::test {
namespace {

std::shared_ptr<SerialQueue> makeQueue(const char* name) {
    return std::make_shared<SerialQueue>(std::string("com.tallowfields.BrightwaveRecord.") + name);
}

TEST(FakeHardwareListenerTest, RunsOnItsQueueAndNeverAfterRemoval) {
    FakeHardware hardware;
    const AudioObjectPropertyAddress address{kAudioDevicePropertyNominalSampleRate,
                                             kAudioObjectPropertyScopeGlobal,
                                             kAudioObjectPropertyElementMain};
    auto queue = makeQueue("listener");
    std::atomic<int> calls{0};
    std::atomic<int> offQueue{0};
    auto listener = std::make_shared<const AudioObjectPropertyListenerBlock>(
        [&](std::uint32_t count, const AudioObjectPropertyAddress* addresses) {
            offQueue +=
                !queue->isCurrent() || count != 1 || addresses[0].mSelector != address.mSelector;
            ++calls;
        });
    ASSERT_EQ(hardware.addPropertyListener(kAudioObjectSystemObject, address, queue, listener), 0);
    hardware.notifyPropertyChanged(kAudioObjectSystemObject, address);
    queue->sync([] {});
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(offQueue, 0);

    // A change queued behind a busy queue, then the removal: the queued call must not run.
    std::promise<void> release;
    queue->async([gate = release.get_future().share()] { gate.wait(); });
    hardware.notifyPropertyChanged(kAudioObjectSystemObject, address);
    ASSERT_EQ(hardware.removePropertyListener(kAudioObjectSystemObject, address, queue, listener),
              0);
    release.set_value();
    queue->sync([] {});
    EXPECT_EQ(calls, 1);
}

class CycleThreadTest : public ::testing::TestWithParam<bool> {};

TEST_P(CycleThreadTest, BlockAndObserverRunOnTheProcsQueueOrTheCaller) {
    const bool withQueue = GetParam();
    FakeHardware hardware;
    AudioObjectID device =
        hardware.addDevice({"speakers-uid", "Speakers", FakeHardware::floatFormat(48000, 2), {}});
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
    const bool withQueue = GetParam();
    FakeHardware hardware;
    AudioObjectID device =
        hardware.addDevice({"speakers-uid", "Speakers", FakeHardware::floatFormat(48000, 2), {}});
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

class BufferLayoutTest : public ::testing::TestWithParam<bool> {};

// Multiples of 1/256, distinct per channel and frame.
float inputValue(std::uint32_t channel, std::uint32_t frame) {
    return float(int(channel * 16 + frame) - 20) / 256.0f;
}

float outputValue(std::uint32_t channel, std::uint32_t frame) {
    return float(int(frame * 8 + channel) - 30) / 256.0f;
}

TEST_P(BufferLayoutTest, InputArrivesInTheDeviceLayoutAndOutputComesBackPerChannel) {
    const bool interleaved = GetParam();
    constexpr std::uint32_t kChannels = 3;
    constexpr std::uint32_t kFrames = 8;
    FakeHardware hardware;
    const auto format = FakeHardware::floatFormat(48000, kChannels, interleaved);
    AudioObjectID device = hardware.addDevice({"duplex", "Duplex", format, format});

    // The last channel is left out (silence) and the first is short.
    std::vector<std::vector<float>> input(kChannels - 1);
    for (std::uint32_t ch = 0; ch < input.size(); ++ch) {
        for (std::uint32_t f = 0; f < (ch == 0 ? kFrames - 2 : kFrames); ++f) {
            input[ch].push_back(inputValue(ch, f));
        }
    }
    // Where a sample lives, worked out here rather than by the fake.
    auto sample = [&](const AudioBufferList& list, std::uint32_t ch, std::uint32_t f) -> float& {
        return interleaved ? static_cast<float*>(list.mBuffers[0].mData)[f * kChannels + ch]
                           : static_cast<float*>(list.mBuffers[ch].mData)[f];
    };

    bool layoutOk = false;
    int wrongInputs = 0;
    AudioDeviceIOProcID proc = 0;
    ASSERT_EQ(hardware.createIOProcID(
                  device, nullptr,
                  [&](const AudioTimeStamp*, const AudioBufferList* in, const AudioTimeStamp*,
                      AudioBufferList* out, const AudioTimeStamp*) {
                      const std::uint32_t buffers = interleaved ? 1 : kChannels;
                      layoutOk = in && out && in->mNumberBuffers == buffers &&
                                 out->mNumberBuffers == buffers &&
                                 in->mBuffers[0].mNumberChannels == kChannels / buffers;
                      for (std::uint32_t ch = 0; layoutOk && ch < kChannels; ++ch) {
                          for (std::uint32_t f = 0; f < kFrames; ++f) {
                              const bool given = ch < input.size() && f < input[ch].size();
                              wrongInputs +=
                                  sample(*in, ch, f) != (given ? input[ch][f] : 0.0f) ? 1 : 0;
                              sample(*out, ch, f) = outputValue(ch, f);
                          }
                      }
                  },
                  proc),
              0);
    ASSERT_EQ(hardware.deviceStart(device, proc), 0);
    auto output = hardware.runIOCycle(device, kFrames, input);

    ASSERT_TRUE(layoutOk);
    EXPECT_EQ(wrongInputs, 0);
    ASSERT_EQ(output.size(), kChannels);
    for (std::uint32_t ch = 0; ch < kChannels; ++ch) {
        ASSERT_EQ(output[ch].size(), kFrames);
        for (std::uint32_t f = 0; f < kFrames; ++f) {
            EXPECT_EQ(output[ch][f], outputValue(ch, f)) << "channel " << ch << " frame " << f;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Layouts, BufferLayoutTest, ::testing::Bool(), [](const auto& info) {
    return std::string(info.param ? "Interleaved" : "Split");
});

}  // namespace
}  // namespace bw::test
