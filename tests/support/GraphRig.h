#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/av/AudioEngine.h"
#include "platform/av/AudioPlayerNode.h"
#include "platform/av/AudioUnitEQ.h"
#include "platform/av/PCMBuffer.h"
#include "tests/support/FakeHardware.h"
#include "tests/support/TestBuffers.h"

namespace bw::test {

/// An engine on FakeHardware with one output device ("speakers"), and helpers to feed players and
/// render cycles by hand.
struct GraphRig {
    std::shared_ptr<FakeHardware> hardware = std::make_shared<FakeHardware>();
    AudioObjectID speakers = 0;
    std::unique_ptr<AudioEngine> engine;

    explicit GraphRig(double deviceRate = 48000, std::uint32_t deviceChannels = 2,
                      bool interleaved = true) {
        speakers = hardware->addDevice(
            {"speakers", "Speakers",
             FakeHardware::floatFormat(deviceRate, deviceChannels, interleaved), {}});
        engine = std::make_unique<AudioEngine>(hardware);
    }

    /// Runs cycles of `cycle` frames until `frames` frames were rendered; output per channel.
    std::vector<std::vector<float>> render(std::size_t frames, std::uint32_t cycle = 480) {
        std::vector<std::vector<float>> out;
        for (std::size_t done = 0; done < frames; done += cycle) {
            auto chunk = hardware->runIOCycle(speakers, cycle);
            out.resize(chunk.size());
            for (std::size_t c = 0; c < chunk.size(); ++c) {
                out[c].insert(out[c].end(), chunk[c].begin(), chunk[c].end());
            }
        }
        return out;
    }
};

/// Counts events from other threads and lets a test wait for a number of them.
class EventCounter {
public:
    void signal() {
        std::lock_guard lock(mutex_);
        ++count_;
        changed_.notify_all();
    }
    int count() const {
        std::lock_guard lock(mutex_);
        return count_;
    }
    bool waitFor(int atLeast, std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return count_ >= atLeast; });
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    int count_ = 0;
};

}  // namespace bw::test
