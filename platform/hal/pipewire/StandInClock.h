#pragma once

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "platform/hal/pipewire/StreamEndpoint.h"

namespace bw::pipewire {

/// Renders silence through started playback IO procs while the server is away, every 10 ms at
/// the graph's rate, so that the graph they clock goes on and a recording sees a gap.
///
/// Owner: the hardware layer. Thread: `start` and `stop` with the loop lock held (or at the end,
/// when nothing else runs); `waitIdle` from any thread. Its own thread calls the IO blocks with no
/// lock held and keeps the endpoints it clocks until it stops.
class StandInClock {
public:
    StandInClock() = default;
    ~StandInClock() { stop(); }
    StandInClock(const StandInClock&) = delete;
    StandInClock& operator=(const StandInClock&) = delete;

    /// Clocks those of `endpoints` that play back and render now. Does nothing when none does or
    /// when it runs already.
    void start(const std::vector<std::shared_ptr<StreamEndpoint>>& endpoints);
    /// Ends its thread and waits for it.
    void stop();
    /// Spins until no block of the clock runs. A stop that has cleared an endpoint's rendering
    /// flag knows, once this returns, that the clock calls that block no more.
    void waitIdle() const;

private:
    std::thread thread_;
    std::atomic<bool> running_{false};
    std::atomic<bool> busy_{false};
};

}  // namespace bw::pipewire
