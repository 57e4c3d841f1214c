#pragma once

#include <memory>
#include <mutex>

#include "engine/FailureCallback.h"
#include "platform/av/AudioPlayerNode.h"
#include "platform/av/PCMBuffer.h"

namespace bw {

/// Feeds one source's player without letting a backlog grow: at most `maxPendingBuffers` buffers
/// may wait to be played back; beyond that, buffers are dropped and the overrun is reported once.
///
/// Owner: the engine's `ActiveSource` (shared; completions hold it weakly). Thread: `schedule` on
/// the capture's thread; the state calls on the engine's control queue; completions on the graph's
/// completion thread. The lock guards the three changing fields and is never held across a call
/// to the player or the callback.
class BoundedBufferScheduler : public std::enable_shared_from_this<BoundedBufferScheduler> {
public:
    static constexpr int kMaxPendingBuffers = 96;

    BoundedBufferScheduler(std::shared_ptr<AudioPlayerNode> player,
                           int maxPendingBuffers = kMaxPendingBuffers);

    /// What every layer that loses captured audio on the way to the file reports, once.
    static std::string overrunMessage();

    /// Hands the buffer to the player, or drops it: silently once stopped, with one report of
    /// "Recording stopped because audio capture could not keep up." at the first overrun.
    void schedule(std::shared_ptr<PCMBuffer> buffer, const FailureCallback& onOverrun);

    /// Buffers are accepted again (before the player's `play`).
    void clearStopped();
    /// Buffers are refused and the pending count forgotten (before the player's `stop`).
    void stopAndForgetPending();
    int pendingBuffers() const;
    /// Buffers dropped because the bound was reached.
    int droppedBuffers() const;

private:
    void bufferPlayedBack();

    const std::shared_ptr<AudioPlayerNode> player_;
    mutable std::mutex lock_;
    const int maxPendingBuffers_;
    int pendingBuffers_ = 0;
    bool stopped_ = false;
    bool reportedOverrun_ = false;
    int droppedBuffers_ = 0;
};

}  // namespace bw
