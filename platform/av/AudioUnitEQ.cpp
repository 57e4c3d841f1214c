#include "platform/av/AudioUnitEQ.h"

#include <algorithm>
#include <cmath>

#include "platform/av/VectorOps.h"

namespace bw {

AudioUnitEQ::AudioUnitEQ(unsigned) {}

void AudioUnitEQ::setGlobalGain(float decibels) {
    const float clamped = std::isnan(decibels) ? 0.0f : std::clamp(decibels, -96.0f, 24.0f);
    gainDb_.store(clamped);
    linearGain_.store(clamped == 0.0f ? 1.0f : std::pow(10.0f, clamped / 20.0f));
}

bool AudioUnitEQ::prepareRender(FrameCount) {
    if (inputs().empty() || !outputFormat()) {
        return false;
    }
    const AudioFormat& in = inputs()[0].format;
    return in.channelCount() == outputFormat()->channelCount() &&
           in.sampleRate() == outputFormat()->sampleRate();
}

// Realtime: renders the input in place, then scales it.
void AudioUnitEQ::render(float* const* output, FrameCount frames) {
    inputs()[0].node->pull(output, frames);
    const float gain = linearGain_.load(std::memory_order_relaxed);
    if (gain != 1.0f) {
        for (ChannelCount c = 0; c < outputFormat()->channelCount(); ++c) {
            vec::scale(output[c], gain, frames);
        }
    }
}

}  // namespace bw
