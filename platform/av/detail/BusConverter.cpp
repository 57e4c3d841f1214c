#include "platform/av/detail/BusConverter.h"

#include <algorithm>
#include <cmath>

#include "platform/av/VectorOps.h"

namespace bw::detail {

BusConverter::BusConverter(const AudioFormat& input, const AudioFormat& output,
                           FrameCount maxFrames)
    : inputChannels_(input.channelCount()), outputChannels_(output.channelCount()) {
    const ChannelCount resampled = std::min(inputChannels_, outputChannels_);
    std::size_t maxInput = maxFrames;
    if (input.sampleRate() != output.sampleRate()) {
        resampler_ = std::make_unique<SincResampler>(input.sampleRate(), output.sampleRate(),
                                                     resampled, maxFrames);
        maxInput = std::size_t(std::ceil(double(maxFrames) * input.sampleRate() /
                                         output.sampleRate())) +
                   4 * resampler_->latencyFrames() + 64;
    }
    inputScratch_.assign(inputChannels_, std::vector<float>(maxInput));
    for (auto& channel : inputScratch_) {
        inputPointers_.push_back(channel.data());
    }
    middleScratch_.assign(resampled, std::vector<float>(maxFrames));
    for (auto& channel : middleScratch_) {
        middlePointers_.push_back(channel.data());
    }
}

// Realtime: plain loops over preallocated buffers.
void BusConverter::mapChannels(const float* const* input, ChannelCount inputChannels,
                               float* const* output, ChannelCount outputChannels,
                               FrameCount frames) {
    if (inputChannels <= outputChannels) {
        for (ChannelCount c = 0; c < outputChannels; ++c) {
            std::copy_n(input[c % inputChannels], frames, output[c]);
        }
        return;
    }
    for (ChannelCount c = 0; c < outputChannels; ++c) {
        std::copy_n(input[c], frames, output[c]);
        ChannelCount sources = 1;
        for (ChannelCount i = c + outputChannels; i < inputChannels; i += outputChannels) {
            vec::add(input[i], output[c], frames);
            ++sources;
        }
        if (sources > 1) {
            vec::scale(output[c], 1.0f / float(sources), frames);
        }
    }
}

}  // namespace bw::detail
