#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include "platform/av/AudioFormat.h"
#include "platform/av/AudioTapBlock.h"
#include "platform/av/detail/FloatRing.h"
#include "platform/dispatch/Semaphore.h"

namespace bw::detail {

/// A tap on a node's output: the render side pushes frames into a ring, the tap's thread cuts
/// them into buffers of `bufferSize` frames and calls the block.
///
/// `push` is realtime-safe; when the tap's thread falls behind by more than the ring holds (eight
/// buffers), the newest frames are dropped and counted. `stop` hands over every whole buffer
/// pushed before it, then ends the thread: once it returns no block call starts (called from the
/// block itself, nothing more is handed over and the thread ends after the block returns). So
/// taps fed the same frames end on the same frame, however far behind their threads were. The
/// first drop is also told to `onDrop`, on the tap's thread, after the buffer at hand is
/// delivered.
class NodeTap {
public:
    NodeTap(FrameCount bufferSize, const AudioFormat& format, AudioTapBlock block,
            AudioTapDropHandler onDrop = {});
    ~NodeTap();
    NodeTap(const NodeTap&) = delete;
    NodeTap& operator=(const NodeTap&) = delete;

    const AudioFormat& format() const { return core_->format; }

    // Realtime: copies `frames` frames of `format().channelCount()` channels; wakes the thread once
    // a whole buffer waits.
    void push(const float* const* channels, FrameCount frames);

    void stop();

    /// Frames dropped because the ring was full.
    std::uint64_t droppedFrames() const { return core_->dropped.load(); }

private:
    // Shared with the thread, which may outlive the tap when stopped from inside its own block.
    struct Core {
        Core(FrameCount bufferSize, const AudioFormat& format, AudioTapBlock block,
             AudioTapDropHandler onDrop);
        FrameCount bufferSize;
        AudioFormat format;
        AudioTapBlock block;
        AudioTapDropHandler onDrop;  // emptied once told
        FloatRing ring;
        Semaphore signal;
        std::atomic<bool> stopping{false};
        std::atomic<bool> abandoned{false};  // stopped from inside the block: hand over no more
        std::atomic<std::uint64_t> dropped{0};
        std::uint64_t delivered = 0;  // frames handed to the block, on the tap's thread
    };
    static void run(const std::shared_ptr<Core>& core);

    std::shared_ptr<Core> core_;
    std::thread thread_;
};

}  // namespace bw::detail
