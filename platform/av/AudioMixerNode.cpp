#include "platform/av/AudioMixerNode.h"

#include <algorithm>
#include <cmath>

#include "platform/av/AudioEngine.h"
#include "platform/av/VectorOps.h"
#include "platform/av/detail/BusConverter.h"
#include "platform/av/detail/TapSlot.h"

namespace bw {

AudioMixerNode::AudioMixerNode() : tap_(std::make_unique<detail::TapSlot>()) {}

AudioMixerNode::~AudioMixerNode() = default;

void AudioMixerNode::setOutputVolume(float volume) {
    outputVolume_.store(std::clamp(std::isnan(volume) ? 1.0f : volume, 0.0f, 1.0f));
}

bool AudioMixerNode::installTap(std::uint32_t bus, FrameCount bufferSize,
                                const AudioFormat& format, AudioTapBlock block,
                                AudioTapDropHandler onDrop) {
    if (bus != 0) {
        return false;
    }
    if (auto out = outputFormat();
        out && (out->channelCount() != format.channelCount() ||
                out->sampleRate() != format.sampleRate())) {
        return false;
    }
    return tap_->install(bufferSize, format, std::move(block), std::move(onDrop));
}

void AudioMixerNode::removeTap(std::uint32_t bus) {
    if (bus != 0) {
        return;
    }
    // The render thread may still be pushing into it: wait for that cycle to end.
    tapDroppedFrames_.fetch_add(tap_->remove([this] {
        if (engine() != nullptr) {
            engine()->waitForRenderCycle();
        }
    }));
}

bool AudioMixerNode::prepareRender(FrameCount maxFrames) {
    if (!outputFormat()) {
        return false;
    }
    const AudioFormat& out = *outputFormat();
    converters_.clear();
    for (const Input& input : inputs()) {
        converters_.push_back(std::make_unique<detail::BusConverter>(input.format, out, maxFrames));
    }
    scratch_.assign(out.channelCount(), std::vector<float>(maxFrames));
    scratchPointers_.clear();
    for (auto& channel : scratch_) {
        scratchPointers_.push_back(channel.data());
    }
    return true;
}

// Realtime: converts and sums every input, scales, and hands the result to the tap.
void AudioMixerNode::render(float* const* output, FrameCount frames) {
    const ChannelCount channels = outputFormat()->channelCount();
    for (ChannelCount c = 0; c < channels; ++c) {
        vec::clear(output[c], frames);
    }
    const auto& buses = inputs();
    for (std::size_t bus = 0; bus < buses.size() && bus < converters_.size(); ++bus) {
        AudioNode* source = buses[bus].node.get();
        converters_[bus]->pull(
            [source](float* const* buffers, FrameCount count) { source->pull(buffers, count); },
            scratchPointers_.data(), frames);
        for (ChannelCount c = 0; c < channels; ++c) {
            vec::add(scratchPointers_[c], output[c], frames);
        }
    }
    const float volume = outputVolume_.load(std::memory_order_relaxed);
    if (volume != 1.0f) {
        for (ChannelCount c = 0; c < channels; ++c) {
            vec::scale(output[c], volume, frames);
        }
    }
    if (detail::NodeTap* tap = tap_->current(); tap && tap->format().channelCount() == channels) {
        tap->push(output, frames);
    }
}

}  // namespace bw
