#include "platform/hal/pipewire/StandInClock.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>

#include "platform/hal/pipewire/Constants.h"

namespace bw::pipewire {

namespace {

// The clock's step: 10 ms of silence at the graph's rate.
constexpr std::uint32_t kStandInFrames = 480;

}  // namespace

void StandInClock::start(const std::vector<std::shared_ptr<StreamEndpoint>>& endpoints) {
    std::vector<std::shared_ptr<StreamEndpoint>> playback;
    for (const auto& endpoint : endpoints) {
        if (endpoint->isPlayback() && endpoint->isRendering()) {
            playback.push_back(endpoint);
        }
    }
    if (playback.empty() || thread_.joinable()) {
        return;
    }
    running_.store(true);
    thread_ = std::thread([this, playback = std::move(playback)] {
        pthread_setname_np(pthread_self(), "bw-stand-in-clock");
        std::uint32_t widest = 0;
        for (const auto& endpoint : playback) {
            widest = std::max(widest, endpoint->channels());
        }
        std::vector<float> silence(std::size_t(kStandInFrames) * widest);
        auto next = std::chrono::steady_clock::now();
        while (running_.load()) {
            next += std::chrono::microseconds(std::int64_t(kStandInFrames * 1e6 / kGraphRate));
            std::this_thread::sleep_until(next);
            for (const auto& endpoint : playback) {
                // Busy before the check: a stop that clears `rendering` then waits for idle
                // knows no block is running once it returns.
                busy_.store(true);
                if (running_.load() && endpoint->isRendering()) {
                    std::fill(silence.begin(), silence.end(), 0.0f);
                    endpoint->renderInto(silence.data(), kStandInFrames);
                }
                busy_.store(false);
            }
        }
    });
}

void StandInClock::stop() {
    running_.store(false);
    if (thread_.joinable()) {
        thread_.join();
    }
}

void StandInClock::waitIdle() const {
    while (busy_.load()) {
        std::this_thread::yield();  // a block the clock is in the middle of
    }
}

}  // namespace bw::pipewire
