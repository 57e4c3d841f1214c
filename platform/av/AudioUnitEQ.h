#pragma once

#include <atomic>

#include "platform/av/AudioNode.h"

namespace bw {

/// An equaliser node. This program uses it with no bands, as a gain stage: `globalGain` in decibels
/// applied to everything that passes.
///
/// Thread: `setGlobalGain` from any thread; it takes effect at the next render cycle.
class AudioUnitEQ : public AudioNode {
public:
    /// Only 0 bands are supported; the gain is all it does.
    explicit AudioUnitEQ(unsigned numberOfBands = 0);

    /// Gain in dB, clamped to -96…24; 0 leaves the signal unchanged.
    void setGlobalGain(float decibels);
    float globalGain() const { return gainDb_.load(); }

protected:
    std::uint32_t maximumInputs() const override { return 1; }
    bool prepareRender(FrameCount maxFrames) override;
    void render(float* const* output, FrameCount frames) override;

private:
    std::atomic<float> gainDb_{0.0f};
    std::atomic<float> linearGain_{1.0f};
};

}  // namespace bw
