#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <vector>

namespace bw::pipewire {

/// A single-producer, single-consumer ring of interleaved samples, realtime-safe on both sides.
///
/// Owner: the capture stream it serves. Thread: `write` on the stream's realtime thread, `read`
/// and `readable` on one consumer thread. Its storage is allocated once, here; when it is full a
/// write takes what fits and says how much that was.
class SampleRing {
public:
    explicit SampleRing(std::size_t capacitySamples) : data_(capacitySamples) {}

    // Realtime: copies what fits, returns the number of samples written.
    std::size_t write(const float* samples, std::size_t count) {
        const std::size_t w = write_.load(std::memory_order_relaxed);
        const std::size_t r = read_.load(std::memory_order_acquire);
        const std::size_t n = std::min(count, data_.size() - (w - r));
        const std::size_t at = w % data_.size();
        const std::size_t first = std::min(n, data_.size() - at);
        std::copy_n(samples, first, data_.data() + at);
        std::copy_n(samples + first, n - first, data_.data());
        write_.store(w + n, std::memory_order_release);
        return n;
    }

    // Realtime: copies up to `count` samples out, returns how many it copied.
    std::size_t read(float* samples, std::size_t count) {
        const std::size_t r = read_.load(std::memory_order_relaxed);
        const std::size_t w = write_.load(std::memory_order_acquire);
        const std::size_t n = std::min(count, w - r);
        const std::size_t at = r % data_.size();
        const std::size_t first = std::min(n, data_.size() - at);
        std::copy_n(data_.data() + at, first, samples);
        std::copy_n(data_.data(), n - first, samples + first);
        read_.store(r + n, std::memory_order_release);
        return n;
    }

    // Realtime: the samples a read would get now.
    std::size_t readable() const {
        return write_.load(std::memory_order_acquire) - read_.load(std::memory_order_acquire);
    }

private:
    std::vector<float> data_;
    std::atomic<std::size_t> write_{0};
    std::atomic<std::size_t> read_{0};
};

}  // namespace bw::pipewire
