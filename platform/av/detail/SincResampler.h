#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace bw::detail {

/// A streaming band-limited resampler: Kaiser-windowed sinc, a phase table interpolated linearly,
/// and an exact rational clock so that long recordings don't drift.
///
/// Use per render slice: ask `inputFramesNeeded(n)`, write that many new input frames to
/// `inputChannels()`, then `process(out, n)`. Construction allocates; the rest is realtime-safe.
/// One thread at a time.
class SincResampler {
public:
    SincResampler(double inputRate, double outputRate, std::size_t channels,
                  std::size_t maxOutputFrames);

    /// New input frames that the next `outputFrames` output frames need.
    std::size_t inputFramesNeeded(std::size_t outputFrames) const;

    /// Where to write the next input frames: one pointer per channel, room for
    /// `inputFramesNeeded(maxOutputFrames)` frames.
    float* const* inputChannels() { return inputPointers_.data(); }

    // Realtime: consumes the `inputFramesNeeded(outputFrames)` frames just written and produces
    // `outputFrames` frames per channel into `output`.
    void process(float* const* output, std::size_t outputFrames);

    /// Clears the history, as if no input had been seen.
    void reset();

    /// Delay of the filter in input frames.
    std::size_t latencyFrames() const { return halfTaps_ - 1; }

private:
    void updateInputPointers();

    std::size_t channels_;
    std::uint64_t step_;         // input advance per output frame, numerator
    std::uint64_t denominator_;  // ... over this
    std::size_t halfTaps_;       // taps on each side of the centre
    std::size_t phases_;
    bool exactPhases_ = false;   // one row per distinct phase, used as is
    std::vector<float> table_;   // (phases_ + 1) rows of 2 * halfTaps_ coefficients
    std::vector<float> kernel_;  // scratch: the interpolated row of the current output frame

    std::vector<std::vector<float>> history_;
    std::vector<float*> inputPointers_;
    std::size_t historyLength_ = 0;  // valid frames in each history_ channel
    std::size_t position_ = 0;       // index in history_ of the next output's base frame
    std::uint64_t fraction_ = 0;     // its fractional part, numerator over denominator_
};

}  // namespace bw::detail
