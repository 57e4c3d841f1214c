#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <vector>

namespace bw::detail {

/// A single-producer, single-consumer ring of multichannel float frames.
///
/// Storage is allocated at construction; `write` and `read` are realtime-safe (no allocation,
/// lock or wait). When the ring is full, `write` takes what fits and reports how much that was.
class FloatRing {
public:
    FloatRing(std::size_t channels, std::size_t capacityFrames)
        : channels_(channels), capacity_(capacityFrames), storage_(channels * capacityFrames) {}

    std::size_t channels() const { return channels_; }
    std::size_t capacity() const { return capacity_; }

    /// Frames ready for the consumer.
    std::size_t readable() const {
        return writePos_.load(std::memory_order_acquire) - readPos_.load(std::memory_order_acquire);
    }

    // Realtime: producer side. Copies up to `frames` frames of `channels()` channels; returns the
    // number written.
    std::size_t write(const float* const* source, std::size_t frames) {
        const std::size_t w = writePos_.load(std::memory_order_relaxed);
        const std::size_t r = readPos_.load(std::memory_order_acquire);
        const std::size_t count = std::min(frames, capacity_ - (w - r));
        copyIn(source, w, count);
        writePos_.store(w + count, std::memory_order_release);
        return count;
    }

    // Realtime: consumer side. Copies up to `frames` frames out; returns the number read.
    std::size_t read(float* const* target, std::size_t frames) {
        const std::size_t r = readPos_.load(std::memory_order_relaxed);
        const std::size_t w = writePos_.load(std::memory_order_acquire);
        const std::size_t count = std::min(frames, w - r);
        for (std::size_t c = 0; c < channels_; ++c) {
            const float* base = storage_.data() + c * capacity_;
            const std::size_t start = r % capacity_;
            const std::size_t first = std::min(count, capacity_ - start);
            std::copy_n(base + start, first, target[c]);
            std::copy_n(base, count - first, target[c] + first);
        }
        readPos_.store(r + count, std::memory_order_release);
        return count;
    }

private:
    void copyIn(const float* const* source, std::size_t position, std::size_t count) {
        for (std::size_t c = 0; c < channels_; ++c) {
            float* base = storage_.data() + c * capacity_;
            const std::size_t start = position % capacity_;
            const std::size_t first = std::min(count, capacity_ - start);
            std::copy_n(source[c], first, base + start);
            std::copy_n(source[c] + first, count - first, base);
        }
    }

    const std::size_t channels_;
    const std::size_t capacity_;
    std::vector<float> storage_;
    alignas(64) std::atomic<std::size_t> writePos_{0};
    alignas(64) std::atomic<std::size_t> readPos_{0};
};

}  // namespace bw::detail
