// The render callback must never allocate: this program counts every allocation made on the
// thread of an IO cycle while the IO block runs.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "tests/support/GraphRig.h"
#include "tests/support/SignalAnalysis.h"

namespace {
thread_local bool tCountAllocations = false;
std::atomic<int> gAllocationsInCycles{0};

void* allocate(std::size_t size) {
    if (tCountAllocations) {
        gAllocationsInCycles.fetch_add(1);
    }
    if (void* p = std::malloc(size == 0 ? 1 : size)) {
        return p;
    }
    throw std::bad_alloc();
}
}  // namespace

void* operator new(std::size_t size) {
    return allocate(size);
}
void* operator new[](std::size_t size) {
    return allocate(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return allocate(size);
    } catch (...) {
        return nullptr;
    }
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept {
    return operator new(size, tag);
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    std::free(p);
}

namespace bw {
namespace {

// Counts allocations while an IO block that the engine made runs, on the block's own thread.
struct CountingHardware : test::FakeHardware {
    int cycles = 0;
    OSStatus createIOProcID(AudioObjectID device, std::shared_ptr<SerialQueue> queue,
                            AudioDeviceIOBlock block, AudioDeviceIOProcID& out) override {
        auto counted = [this, block = std::move(block)](auto... args) {
            tCountAllocations = true;
            block(args...);
            tCountAllocations = false;
            ++cycles;
        };
        return FakeHardware::createIOProcID(device, std::move(queue), counted, out);
    }
};

TEST(RenderRealtimeTest, RenderCycleAllocatesNothingWithPlayersResamplingGainAndATap) {
    auto hardware = std::make_shared<CountingHardware>();
    const auto speakers = hardware->addDevice(
        {"speakers", "Speakers", test::FakeHardware::floatFormat(48000, 2, true), {}});
    AudioEngine engine(hardware);
    const auto canonical = *AudioFormat::standard(48000, 2);
    auto recordMixer = std::make_shared<AudioMixerNode>();
    engine.attach(recordMixer);
    ASSERT_TRUE(engine.connect(recordMixer, engine.mainMixerNode(), canonical));
    std::vector<std::shared_ptr<AudioPlayerNode>> players;
    for (auto [rate, channels] : {std::pair{44100.0, 1u}, {96000.0, 4u}, {48000.0, 2u}}) {
        auto player = std::make_shared<AudioPlayerNode>();
        auto gain = std::make_shared<AudioUnitEQ>(0);
        engine.attach(player);
        engine.attach(gain);
        const auto format = *AudioFormat::standard(rate, channels);
        ASSERT_TRUE(engine.connect(player, gain, format));
        ASSERT_TRUE(engine.connect(gain, recordMixer, format));
        gain->setGlobalGain(3.0f);
        player->setVolume(0.7f);
        std::vector<std::vector<float>> data(channels,
                                             test::sine(500, rate, std::size_t(rate / 10)));
        for (int i = 0; i < 20; ++i) {
            ASSERT_TRUE(player->scheduleBuffer(
                test::makeBuffer(rate, data),
                AudioPlayerNode::CompletionCallbackType::dataPlayedBack, [] {}));
        }
        players.push_back(player);
    }
    test::EventCounter tapped;
    ASSERT_TRUE(recordMixer->installTap(
        0, 4096, canonical, [&](std::shared_ptr<PCMBuffer>, AudioTimeStamp) { tapped.signal(); }));
    ASSERT_TRUE(engine.start());
    for (auto& player : players) {
        player->play();
    }
    for (int cycle = 1; cycle <= 48000 * 2 / 512; ++cycle) {
        hardware->runIOCycle(speakers, 512);
        ASSERT_TRUE(tapped.waitFor(cycle * 512 / 4096 - 2));  // a device keeps real time
    }
    EXPECT_TRUE(tapped.waitFor(20));
    EXPECT_EQ(gAllocationsInCycles.load(), 0);
    EXPECT_EQ(hardware->cycles, 48000 * 2 / 512);
    recordMixer->removeTap(0);
    engine.stop();
}

}  // namespace
}  // namespace bw
