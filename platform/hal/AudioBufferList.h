#pragma once

#include <cstdint>

namespace bw {

/// One block of samples: `mNumberChannels` interleaved channels in `mDataByteSize` bytes.
struct AudioBuffer {
    std::uint32_t mNumberChannels = 0;
    std::uint32_t mDataByteSize = 0;
    void* mData = nullptr;
};

/// A non-owning view of the buffers of one IO cycle: one buffer per channel for non-interleaved
/// streams, a single buffer for interleaved ones. Whoever makes the list owns the memory.
struct AudioBufferList {
    std::uint32_t mNumberBuffers = 0;
    AudioBuffer* mBuffers = nullptr;
};

}  // namespace bw
