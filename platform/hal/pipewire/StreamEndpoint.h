#pragma once

#include <pipewire/pipewire.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/dispatch/Semaphore.h"
#include "platform/hal/AudioHardware.h"
#include "platform/hal/pipewire/SampleRing.h"

namespace bw::pipewire {

/// A pw_stream of ours: an aggregate device's capture, or an IO proc's playback to a sink or
/// capture from a source. It keeps what it was made with, so that it can be made again under the
/// same node name on a server that came back.
///
/// Owner: shared by the aggregate or IO proc that made it and whatever moves its audio (pump
/// thread, stand-in clock). The stream goes in `destroy`, which its maker calls before letting go.
/// Thread: `connect`, `destroy`, `hasStream` and `nodeID` with the loop lock held. The hand-offs
/// below them are lock-free and may be called from any thread. A capture's cycles go into a ring
/// of 2 s; what doesn't fit is dropped and counted in `dropped`.
class StreamEndpoint {
public:
    StreamEndpoint(bool playback, std::string name, std::uint32_t channels, double rate,
                   std::string target, bool autoconnect);
    StreamEndpoint(const StreamEndpoint&) = delete;
    StreamEndpoint& operator=(const StreamEndpoint&) = delete;

    /// An endpoint with its stream connected on `core`; nothing when the stream can't be made.
    static std::shared_ptr<StreamEndpoint> make(pw_core* core, bool playback,
                                                const std::string& name, std::uint32_t channels,
                                                double rate, const std::string& target,
                                                bool autoconnect);

    /// Makes the stream on `core` and connects it; false when that fails (then it has none).
    bool connect(pw_core* core);
    /// Destroys the stream if it has one; waits for the realtime thread to let go of it.
    void destroy();
    bool hasStream() const { return stream_ != nullptr; }
    /// The stream's node in the graph; SPA_ID_INVALID until the server has given it one.
    std::uint32_t nodeID() const;

    bool isPlayback() const { return playback_; }
    std::uint32_t channels() const { return channels_; }

    /// Playback: from the next cycle on, `block` renders into the stream on its realtime thread.
    void startRendering(AudioDeviceIOBlock block);
    bool isRendering() const { return rendering_.load(); }
    /// Renders one cycle of `frames` into `buffer` through the block, off the stream: the
    /// stand-in clock's cycle while the server is away. The caller checked `isRendering`.
    void renderInto(float* buffer, std::uint32_t frames);
    /// Capture: from the next cycle on, the realtime thread fills the ring.
    void startConsuming();
    /// Neither renders nor fills the ring from the next cycle on (one running may finish).
    void stopIO();

    /// Capture: waits up to `timeout` for a cycle to arrive in the ring, or for `wake`.
    void waitForAudio(std::chrono::milliseconds timeout) { (void)signal_.tryAcquireFor(timeout); }
    void wake() { signal_.release(); }
    /// Capture: samples dropped so far because the ring was full.
    std::uint64_t dropped() const { return dropped_.load(std::memory_order_relaxed); }
    std::size_t readable() const { return ring_->readable(); }
    std::size_t read(float* samples, std::size_t count) { return ring_->read(samples, count); }

private:
    static const pw_stream_events& streamEvents();
    static void onProcess(void* data);

    pw_stream* stream_ = nullptr;
    spa_hook listener_{};
    const std::string name_;  // node name, target and autoconnect: to make it again
    const std::string target_;
    const bool autoconnect_ = false;
    const bool playback_ = false;
    const std::uint32_t channels_ = 2;
    const double rate_;
    std::unique_ptr<SampleRing> ring_;    // capture: realtime thread → pump
    Semaphore signal_;                    // capture: wakes the pump
    std::atomic<bool> consuming_{false};  // capture: a started IO proc reads the ring
    std::atomic<bool> rendering_{false};  // playback: the IO block may run
    AudioDeviceIOBlock block_;            // playback: called on the realtime thread
    std::atomic<std::uint64_t> dropped_{0};
    double sampleTime_ = 0;  // realtime thread, or the stand-in clock
};

}  // namespace bw::pipewire
