#include "platform/av/AudioNode.h"

#include "platform/av/VectorOps.h"

namespace bw {

AudioNode::~AudioNode() = default;

std::optional<AudioFormat> AudioNode::inputFormat(std::uint32_t bus) const {
    if (bus >= inputs_.size()) {
        return std::nullopt;
    }
    return inputs_[bus].format;
}

// Realtime: no allocation, lock or wait.
void AudioNode::pull(float* const* output, FrameCount frames) {
    if (!renderable_ || !outputFormat_) {
        if (outputFormat_) {
            for (ChannelCount c = 0; c < outputFormat_->channelCount(); ++c) {
                vec::clear(output[c], frames);
            }
        }
        return;
    }
    render(output, frames);
}

}  // namespace bw
