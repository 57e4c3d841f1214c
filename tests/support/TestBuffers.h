#pragma once

#include <algorithm>
#include <memory>
#include <vector>

#include "platform/av/PCMBuffer.h"

namespace bw::test {

/// A standard-format buffer holding the given channels.
inline std::shared_ptr<PCMBuffer> makeBuffer(double rate, const std::vector<std::vector<float>>& channels) {
    auto format = *AudioFormat::standard(rate, std::uint32_t(channels.size()));
    auto buffer = PCMBuffer::make(format, FrameCount(channels[0].size()));
    buffer->setFrameLength(FrameCount(channels[0].size()));
    for (std::size_t c = 0; c < channels.size(); ++c) {
        std::copy(channels[c].begin(), channels[c].end(), buffer->floatChannelData()[c]);
    }
    return buffer;
}

}  // namespace bw::test
