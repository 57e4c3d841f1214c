#include "platform/av/detail/SincResampler.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <numeric>

namespace bw::detail {

namespace {

constexpr double kZeroCrossings = 16.0;
constexpr double kRolloff = 0.95;  // passband edge as a share of the lower Nyquist frequency
constexpr double kKaiserBeta = 9.0;
constexpr std::size_t kPhases = 256;
constexpr std::uint64_t kMaxExactPhases = 1024;

double besselI0(double x) {
    double sum = 1.0;
    double term = 1.0;
    for (int k = 1; k < 40; ++k) {
        term *= (x / (2.0 * k)) * (x / (2.0 * k));
        sum += term;
        if (term < sum * 1e-16) {
            break;
        }
    }
    return sum;
}

// Realtime: the filter's inner product. Summed in any order (vectorised); the rounding
// difference is far below 16-bit resolution.
float dot(const float* x, const float* h, std::size_t count) {
    float sum = 0.0f;
#pragma omp simd reduction(+ : sum)
    for (std::size_t j = 0; j < count; ++j) {
        sum += x[j] * h[j];
    }
    return sum;
}

std::uint64_t rateUnits(double rate) {
    // Rates are whole hertz in practice; keep millihertz for anything else.
    const double rounded = std::round(rate);
    if (std::fabs(rate - rounded) < 1e-9) {
        return std::uint64_t(rounded) * 1000;
    }
    return std::uint64_t(std::llround(rate * 1000.0));
}

}  // namespace

SincResampler::SincResampler(double inputRate, double outputRate, std::size_t channels,
                             std::size_t maxOutputFrames)
    : channels_(channels), phases_(kPhases) {
    std::uint64_t in = rateUnits(inputRate);
    std::uint64_t out = rateUnits(outputRate);
    const std::uint64_t divisor = std::gcd(in, out);
    step_ = in / divisor;
    denominator_ = out / divisor;

    const double cutoff = std::min(1.0, outputRate / inputRate) * kRolloff;
    halfTaps_ = std::size_t(std::ceil(kZeroCrossings / cutoff));
    const std::size_t taps = 2 * halfTaps_;
    // With few distinct phases (every common pair of rates), each gets an exact kernel; otherwise
    // a fine table is interpolated between neighbouring rows.
    exactPhases_ = denominator_ <= kMaxExactPhases;
    phases_ = exactPhases_ ? std::size_t(denominator_) : kPhases;
    const std::size_t rows = exactPhases_ ? phases_ : phases_ + 1;
    table_.resize(rows * taps);
    const double i0Beta = besselI0(kKaiserBeta);
    for (std::size_t p = 0; p < rows; ++p) {
        const double offset = double(p) / double(phases_);
        float* row = &table_[p * taps];
        double sum = 0.0;
        std::vector<double> values(taps);
        for (std::size_t j = 0; j < taps; ++j) {
            // Tap j weighs input frame (base - halfTaps_ + 1 + j) for an output at base + offset.
            const double x = double(j) - double(halfTaps_ - 1) - offset;
            const double ratio = x / double(halfTaps_);
            double window = 0.0;
            if (std::fabs(ratio) < 1.0) {
                window = besselI0(kKaiserBeta * std::sqrt(1.0 - ratio * ratio)) / i0Beta;
            }
            const double arg = std::numbers::pi * cutoff * x;
            const double sinc = std::fabs(arg) < 1e-12 ? 1.0 : std::sin(arg) / arg;
            values[j] = cutoff * sinc * window;
            sum += values[j];
        }
        // Unity gain at DC for every phase, so levels survive the conversion exactly.
        for (std::size_t j = 0; j < taps; ++j) {
            row[j] = float(values[j] / sum);
        }
    }
    kernel_.resize(taps);

    const std::size_t maxInput =
        std::size_t((std::uint64_t(maxOutputFrames) * step_) / denominator_) + taps + 2;
    history_.assign(channels_, std::vector<float>(maxInput + taps, 0.0f));
    inputPointers_.resize(channels_);
    reset();
}

void SincResampler::reset() {
    for (auto& channel : history_) {
        std::fill(channel.begin(), channel.end(), 0.0f);
    }
    historyLength_ = halfTaps_;
    position_ = halfTaps_ - 1;
    fraction_ = 0;
    updateInputPointers();
}

void SincResampler::updateInputPointers() {
    for (std::size_t c = 0; c < channels_; ++c) {
        inputPointers_[c] = history_[c].data() + historyLength_;
    }
}

std::size_t SincResampler::inputFramesNeeded(std::size_t outputFrames) const {
    if (outputFrames == 0) {
        return 0;
    }
    const std::uint64_t lastBase =
        position_ + (fraction_ + std::uint64_t(outputFrames - 1) * step_) / denominator_;
    const std::uint64_t required = lastBase + halfTaps_ + 1;
    return required > historyLength_ ? std::size_t(required - historyLength_) : 0;
}

// Realtime: no allocation, lock or wait.
void SincResampler::process(float* const* output, std::size_t outputFrames) {
    historyLength_ += inputFramesNeeded(outputFrames);
    const std::size_t taps = 2 * halfTaps_;
    for (std::size_t n = 0; n < outputFrames; ++n) {
        const float* kernel;
        if (exactPhases_) {
            kernel = &table_[std::size_t(fraction_) * taps];
        } else {
            // Interpolate the kernel for this output's phase once; every channel shares it.
            const double phase = double(fraction_) / double(denominator_) * double(phases_);
            const std::size_t p = std::min(std::size_t(phase), phases_ - 1);
            const float t = float(phase - double(p));
            const float* a = &table_[p * taps];
            const float* b = a + taps;
            for (std::size_t j = 0; j < taps; ++j) {
                kernel_[j] = a[j] + (b[j] - a[j]) * t;
            }
            kernel = kernel_.data();
        }
        const std::size_t first = position_ + 1 - halfTaps_;
        for (std::size_t c = 0; c < channels_; ++c) {
            output[c][n] = dot(history_[c].data() + first, kernel, taps);
        }
        fraction_ += step_;
        position_ += std::size_t(fraction_ / denominator_);
        fraction_ %= denominator_;
    }
    // Keep only the frames that later outputs still reach.
    const std::size_t drop = position_ + 1 - halfTaps_;
    if (drop > 0) {
        for (auto& channel : history_) {
            std::copy(channel.begin() + std::ptrdiff_t(drop),
                      channel.begin() + std::ptrdiff_t(historyLength_), channel.begin());
        }
        historyLength_ -= drop;
        position_ -= drop;
    }
    updateInputPointers();
}

}  // namespace bw::detail
