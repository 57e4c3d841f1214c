#pragma once

#include <cstdint>

namespace bw {

/// A stream's sample layout, 40 bytes as the hardware layer passes it in property data.
struct AudioStreamBasicDescription {
    double mSampleRate = 0;
    std::uint32_t mFormatID = 0;
    std::uint32_t mFormatFlags = 0;
    std::uint32_t mBytesPerPacket = 0;
    std::uint32_t mFramesPerPacket = 0;
    std::uint32_t mBytesPerFrame = 0;
    std::uint32_t mChannelsPerFrame = 0;
    std::uint32_t mBitsPerChannel = 0;
    std::uint32_t mReserved = 0;

    friend bool operator==(const AudioStreamBasicDescription&,
                           const AudioStreamBasicDescription&) = default;
};

static_assert(sizeof(AudioStreamBasicDescription) == 40);

}  // namespace bw
