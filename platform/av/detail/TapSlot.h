#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

#include "platform/av/detail/NodeTap.h"

namespace bw::detail {

/// The one tap a node may have: installed and removed on the controlling thread, read on the
/// thread that feeds it without a lock.
class TapSlot {
public:
    ~TapSlot() { delete tap_.exchange(nullptr); }

    /// False when a tap is already there or the format has no rate or no channels.
    bool install(FrameCount bufferSize, const AudioFormat& format, AudioTapBlock block,
                 AudioTapDropHandler onDrop = {}) {
        if (tap_.load() != nullptr || format.channelCount() == 0 || !(format.sampleRate() > 0)) {
            return false;
        }
        tap_.store(new NodeTap(bufferSize, format, std::move(block), std::move(onDrop)));
        return true;
    }

    /// Takes the tap out, lets `waitForFeeder` return once whoever may still be pushing into it
    /// is done, then stops it: after this no block call starts. Returns the frames it dropped.
    std::uint64_t remove(const std::function<void()>& waitForFeeder) {
        std::unique_ptr<NodeTap> tap(tap_.exchange(nullptr));
        if (!tap) {
            return 0;
        }
        if (waitForFeeder) {
            waitForFeeder();
        }
        tap->stop();
        return tap->droppedFrames();
    }

    // Realtime: the tap to push into, or null.
    NodeTap* current() const { return tap_.load(); }

private:
    std::atomic<NodeTap*> tap_{nullptr};
};

}  // namespace bw::detail
