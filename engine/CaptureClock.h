#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <thread>
#include <vector>

#include "platform/av/AudioEngine.h"
#include "platform/av/AudioPlayerNode.h"

namespace bw {

/// Clocks a recording's graph from its captures when nothing plays to the speakers, so that no
/// output stream has to play silence to keep it going. Each delivery renders as many frames as
/// every flowing source has queued; a source that went quiet (nothing queued, nothing delivered for
/// twice its last buffer's length and at least `kQuietAfter`) no longer holds the mix back, and
/// one more than `kLagLimit` behind the leader is rendered over (its missing audio is silence).
/// With every source quiet, a thread of its own renders the time that passes, so the file keeps
/// pace with the clock and a source coming back lands where it belongs.
///
/// Owner: the recording engine, which starts it after the graph and stops it before the graph.
/// Thread: `sourceDelivered` on the captures' threads, any number at once: one of them renders,
/// the others leave their share to it (a wait-free hand-over). Start, drain and stop on the
/// controlling thread. The engine must be in manual rendering mode.
class CaptureClock {
public:
    static constexpr auto kQuietAfter = std::chrono::milliseconds(50);
    static constexpr auto kIdleStep = std::chrono::milliseconds(250);
    static constexpr double kLagLimitSeconds = 0.2;

    /// One source as the rule sees it: frames it has queued, already at the mix's rate, and
    /// whether it went quiet.
    struct SourceState {
        FrameCount queued = 0;
        bool quiet = false;
    };
    /// Frames the mix can render now: the least any flowing source has queued, but never leaving
    /// the leader more than `lagLimit` ahead.
    static FrameCount framesReady(std::span<const SourceState> sources, FrameCount lagLimit);

    /// `players[i]` plays source i, whose buffers come at `sourceRates[i]`; the mix renders at
    /// `mixRate`.
    CaptureClock(AudioEngine& engine, std::vector<std::shared_ptr<AudioPlayerNode>> players,
                 std::vector<double> sourceRates, double mixRate);
    ~CaptureClock();
    CaptureClock(const CaptureClock&) = delete;
    CaptureClock& operator=(const CaptureClock&) = delete;

    /// Starts the thread that clocks the quiet spells.
    void start();

    // Realtime: source `index` has just scheduled `frames` frames on its player; renders what all
    // sources are ready for, unless another thread is rendering (it then renders this share too).
    // No allocation, lock or wait.
    void sourceDelivered(std::size_t index, FrameCount frames);

    /// Captures stopped: renders everything still queued, then silence up to the next multiple of
    /// `multiple` frames so that a tap cutting whole buffers of that size hands over the last one.
    void drain(FrameCount multiple);

    /// Ends the quiet-spell thread; after it returns no render of this clock starts.
    void stop();

    /// Frames rendered so far.
    std::uint64_t framesRendered() const { return rendered_.load(); }

private:
    struct Source {
        std::shared_ptr<AudioPlayerNode> player;
        double toMix = 1.0;                         // mix frames per source frame
        std::atomic<std::int64_t> lastDelivery{0};  // steady-clock nanoseconds; 0: never
        std::atomic<std::int64_t> quietAfter{0};    // nanoseconds
    };

    static std::int64_t nowNanos();
    void request();
    void renderReady();
    void render(FrameCount frames);
    void runIdle();

    AudioEngine& engine_;
    const double mixRate_;
    const FrameCount lagLimit_;
    std::vector<std::unique_ptr<Source>> sources_;
    std::vector<SourceState> states_;  // the renderer's scratch
    std::atomic<bool> rendering_{false};
    std::atomic<bool> again_{false};
    std::atomic<bool> idleDue_{false};
    std::atomic<bool> draining_{false};
    std::atomic<bool> stopped_{false};
    std::atomic<std::uint64_t> rendered_{0};
    std::atomic<std::int64_t> lastProgress_{0};
    FrameCount padMultiple_ = 0;  // written before `draining_`, read once it is seen

    std::mutex idleMutex_;  // the idle thread's sleep, with `stop`
    std::condition_variable idleWake_;
    bool idleEnding_ = false;
    std::thread idle_;
};

}  // namespace bw
