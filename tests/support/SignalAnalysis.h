#pragma once

#include <cmath>
#include <cstddef>
#include <numbers>
#include <span>
#include <vector>

namespace bw::test {

/// A sine of `frames` samples.
inline std::vector<float> sine(double frequency, double sampleRate, std::size_t frames,
                               float amplitude = 0.5f, double phase = 0.0) {
    std::vector<float> out(frames);
    const double step = 2.0 * std::numbers::pi * frequency / sampleRate;
    for (std::size_t i = 0; i < frames; ++i) {
        out[i] = float(amplitude * std::sin(phase + step * double(i)));
    }
    return out;
}

/// Amplitude of the `frequency` component in dBFS, where a full-scale sine reads 0 dB
/// (Goertzel over the span with a Hann window, corrected for the window's gain).
inline double toneLevelDb(std::span<const float> samples, double frequency, double sampleRate) {
    const std::size_t n = samples.size();
    if (n < 2) {
        return -400.0;
    }
    double re = 0.0;
    double im = 0.0;
    double windowSum = 0.0;
    const double step = 2.0 * std::numbers::pi * frequency / sampleRate;
    for (std::size_t i = 0; i < n; ++i) {
        const double w = 0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * double(i) / double(n - 1));
        re += w * samples[i] * std::cos(step * double(i));
        im -= w * samples[i] * std::sin(step * double(i));
        windowSum += w;
    }
    const double amplitude = 2.0 * std::hypot(re, im) / windowSum;
    return 20.0 * std::log10(std::max(amplitude, 1e-20));
}

/// RMS level in dBFS (a full-scale square wave reads 0 dB; a full-scale sine about -3 dB).
inline double rmsDb(std::span<const float> samples) {
    if (samples.empty()) {
        return -400.0;
    }
    double sum = 0.0;
    for (float s : samples) {
        sum += double(s) * s;
    }
    return 10.0 * std::log10(std::max(sum / double(samples.size()), 1e-40));
}

/// Largest magnitude.
inline float peakOf(std::span<const float> samples) {
    float peak = 0.0f;
    for (float s : samples) {
        peak = std::max(peak, std::fabs(s));
    }
    return peak;
}

/// The frequency, in steps of `resolution` Hz between `low` and `high`, with the most energy.
inline double dominantFrequency(std::span<const float> samples, double sampleRate, double low,
                                double high, double resolution = 5.0) {
    double best = low;
    double bestLevel = -1e9;
    for (double f = low; f <= high; f += resolution) {
        const double level = toneLevelDb(samples, f, sampleRate);
        if (level > bestLevel) {
            bestLevel = level;
            best = f;
        }
    }
    return best;
}

}  // namespace bw::test
