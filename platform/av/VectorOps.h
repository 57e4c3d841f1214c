#pragma once

// Small vector routines on float samples, written as plain loops that the compiler vectorises.
// All are realtime-safe: no allocation, lock or system call.

#include <cmath>
#include <cstddef>

namespace bw::vec {

/// Largest magnitude of `count` samples, 0 for none.
inline float maxMagnitude(const float* samples, std::size_t count) {
    // A plain comparison (not fmax, which must honour NaN) so the loop vectorises.
    float peak = 0.0f;
    for (std::size_t i = 0; i < count; ++i) {
        const float magnitude = std::fabs(samples[i]);
        peak = magnitude > peak ? magnitude : peak;
    }
    return peak;
}

/// Splits interleaved stereo into two channels.
inline void deinterleaveStereo(const float* interleaved, float* left, float* right,
                               std::size_t frames) {
    for (std::size_t i = 0; i < frames; ++i) {
        left[i] = interleaved[2 * i];
        right[i] = interleaved[2 * i + 1];
    }
}

/// Transposes a rows × columns matrix into columns × rows: with rows = frames and columns =
/// channels it turns interleaved samples into one contiguous row per channel.
inline void transpose(const float* source, float* target, std::size_t rows, std::size_t columns) {
    for (std::size_t r = 0; r < rows; ++r) {
        for (std::size_t c = 0; c < columns; ++c) {
            target[c * rows + r] = source[r * columns + c];
        }
    }
}

/// Splits `channels` interleaved channels into separate channel blocks.
inline void deinterleave(const float* interleaved, float* const* channelData, std::size_t channels,
                         std::size_t frames) {
    if (channels == 2) {
        deinterleaveStereo(interleaved, channelData[0], channelData[1], frames);
        return;
    }
    for (std::size_t c = 0; c < channels; ++c) {
        float* out = channelData[c];
        for (std::size_t i = 0; i < frames; ++i) {
            out[i] = interleaved[i * channels + c];
        }
    }
}

/// Joins separate channel blocks into interleaved samples.
inline void interleave(const float* const* channelData, float* interleaved, std::size_t channels,
                       std::size_t frames) {
    for (std::size_t c = 0; c < channels; ++c) {
        const float* in = channelData[c];
        for (std::size_t i = 0; i < frames; ++i) {
            interleaved[i * channels + c] = in[i];
        }
    }
}

inline void scale(float* samples, float factor, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        samples[i] *= factor;
    }
}

/// target += source.
inline void add(const float* source, float* target, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        target[i] += source[i];
    }
}

inline void clear(float* samples, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        samples[i] = 0.0f;
    }
}

}  // namespace bw::vec
