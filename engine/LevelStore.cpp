#include "engine/LevelStore.h"

#include <algorithm>

#include "platform/av/VectorOps.h"

namespace bw {

void LevelStore::record(const std::string& sourceID, float peak) {
    std::lock_guard guard(lock_);
    auto it = peaks_.find(sourceID);
    if (it != peaks_.end()) {
        if (it->second < peak) {
            it->second = peak;
        }
    } else if (peak > 0.0f) {
        peaks_.emplace(sourceID, peak);
    }
}

std::map<std::string, float> LevelStore::drain() {
    std::map<std::string, float> taken;
    std::lock_guard guard(lock_);
    taken.swap(peaks_);
    return taken;
}

float peakLevel(const PCMBuffer& buffer) {
    float* const* data = buffer.floatChannelData();
    if (data == nullptr) {
        return 0.0f;
    }
    const bool interleaved = buffer.format().isInterleaved();
    const std::size_t blocks = interleaved ? 1 : buffer.format().channelCount();
    const std::size_t samples =
        std::size_t(buffer.frameLength()) * (interleaved ? buffer.format().channelCount() : 1);
    if (samples == 0) {
        return 0.0f;
    }
    float peak = 0.0f;
    for (std::size_t block = 0; block < blocks; ++block) {
        peak = std::max(peak, vec::maxMagnitude(data[block], samples));
    }
    return std::min(peak, 1.0f);
}

}  // namespace bw
