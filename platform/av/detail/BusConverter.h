#pragma once

#include <memory>
#include <vector>

#include "platform/av/AudioFormat.h"
#include "platform/av/detail/SincResampler.h"

namespace bw {
class AudioNode;
}

namespace bw::detail {

/// Converts one mixer input to the mixer's output: channel count first where that means less work
/// (folding many channels into few, averaged so nothing clips; one channel feeds every output at
/// full level), sample rate with `SincResampler`.
///
/// Construction allocates; `pull` is realtime-safe.
class BusConverter {
public:
    BusConverter(const AudioFormat& input, const AudioFormat& output, FrameCount maxFrames);

    /// Realtime: pulls what `frames` output frames need from `source` and converts them.
    /// `render(buffers, count)` must render `count` input frames into `buffers`.
    template <class Render>
    void pull(Render&& render, float* const* output, FrameCount frames);

    /// Mixes `inputChannels` channels into `outputChannels`: a fold averages the inputs that land
    /// on one output; an expansion repeats the inputs over the outputs.
    static void mapChannels(const float* const* input, ChannelCount inputChannels,
                            float* const* output, ChannelCount outputChannels, FrameCount frames);

private:
    ChannelCount inputChannels_;
    ChannelCount outputChannels_;
    std::unique_ptr<SincResampler> resampler_;
    std::vector<std::vector<float>> inputScratch_;
    std::vector<float*> inputPointers_;
    std::vector<std::vector<float>> middleScratch_;
    std::vector<float*> middlePointers_;
};

template <class Render>
void BusConverter::pull(Render&& render, float* const* output, FrameCount frames) {
    if (!resampler_) {
        if (inputChannels_ == outputChannels_) {
            render(output, frames);
            return;
        }
        render(inputPointers_.data(), frames);
        mapChannels(inputPointers_.data(), inputChannels_, output, outputChannels_, frames);
        return;
    }
    const auto needed = FrameCount(resampler_->inputFramesNeeded(frames));
    if (inputChannels_ <= outputChannels_) {
        render(resampler_->inputChannels(), needed);
    } else {
        render(inputPointers_.data(), needed);
        mapChannels(inputPointers_.data(), inputChannels_, resampler_->inputChannels(),
                    outputChannels_, needed);
    }
    if (inputChannels_ >= outputChannels_) {
        resampler_->process(output, frames);
    } else {
        resampler_->process(middlePointers_.data(), frames);
        mapChannels(middlePointers_.data(), inputChannels_, output, outputChannels_, frames);
    }
}

}  // namespace bw::detail
