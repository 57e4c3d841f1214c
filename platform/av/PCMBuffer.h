#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "platform/av/AudioFormat.h"
#include "platform/hal/AudioBufferList.h"

namespace bw {

/// PCM samples in one `AudioFormat`: either owned (made with `make`) or a no-copy view of an IO
/// cycle's buffer list (made with `wrapNoCopy`, valid only while that memory is).
///
/// Thread: not synchronised; one thread at a time. Buffers travel between threads as
/// `std::shared_ptr<PCMBuffer>`, the receiver owning its reference. Making one allocates.
class PCMBuffer {
public:
    /// A zeroed buffer with room for `capacity` frames and a length of 0; null for a format
    /// without a sample layout (`otherFormat`).
    static std::shared_ptr<PCMBuffer> make(const AudioFormat& format, FrameCount capacity);

    /// Wraps `list` without copying. The list must match the format: one buffer per channel of
    /// one channel each, or one interleaved buffer of all channels, all of the same byte size.
    /// Length and capacity are that size in frames. Null when the list doesn't match.
    static std::shared_ptr<PCMBuffer> wrapNoCopy(const AudioFormat& format,
                                                 const AudioBufferList& list);

    PCMBuffer(const PCMBuffer&) = delete;
    PCMBuffer& operator=(const PCMBuffer&) = delete;

    const AudioFormat& format() const { return format_; }
    FrameCount frameCapacity() const { return capacity_; }
    FrameCount frameLength() const { return length_; }

    /// Sets the number of valid frames; false (and no change) beyond the capacity.
    bool setFrameLength(FrameCount length);

    /// One pointer per channel, or a single pointer for an interleaved buffer; null when the
    /// samples aren't 32-bit floats.
    float* const* floatChannelData() const;

    /// As `floatChannelData`, for 16-bit integer samples.
    std::int16_t* const* int16ChannelData() const;

    /// Number of separate sample blocks: the channel count, or 1 when interleaved.
    std::uint32_t bufferCount() const { return std::uint32_t(channels_.size()); }

    /// Start of block `index` as bytes, whatever the sample type.
    void* rawData(std::uint32_t index) const { return channels_[index]; }

private:
    PCMBuffer(const AudioFormat& format, FrameCount capacity);

    AudioFormat format_;
    FrameCount capacity_ = 0;
    FrameCount length_ = 0;
    std::unique_ptr<std::uint8_t[]> storage_;
    std::vector<void*> channels_;
};

}  // namespace bw
