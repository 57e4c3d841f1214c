#include "engine/CopyOfBuffer.h"

#include <algorithm>

namespace bw {

std::shared_ptr<PCMBuffer> copyOfBuffer(const PCMBuffer& source) {
    auto copy = PCMBuffer::make(source.format(), source.frameLength());
    if (!copy) {
        return nullptr;
    }
    copy->setFrameLength(source.frameLength());
    float* const* from = source.floatChannelData();
    float* const* to = copy->floatChannelData();
    if (from == nullptr || to == nullptr) {
        return nullptr;
    }
    const bool interleaved = source.format().isInterleaved();
    const std::size_t blocks = interleaved ? 1 : source.format().channelCount();
    const std::size_t samples =
        std::size_t(source.frameLength()) * (interleaved ? source.format().channelCount() : 1);
    for (std::size_t block = 0; block < blocks; ++block) {
        std::copy_n(from[block], samples, to[block]);
    }
    return copy;
}

}  // namespace bw
