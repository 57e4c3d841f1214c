#pragma once

#include <cstdint>

namespace bw {

/// The SplitMix64 generator and the two multiply-and-reject draws of the console's grain.
///
/// Deterministic and platform-independent: the same seed gives the same numbers on every
/// machine. All arithmetic wraps at 64 bits. The draws are templates over the source of outputs
/// so that their rejection rule can be checked against chosen outputs.
class SplitMix64 {
public:
    explicit SplitMix64(std::uint64_t seed) : state_(seed) {}

    /// One step: the next 64-bit output.
    std::uint64_t next() {
        state_ += 0x9E3779B97F4A7C15ull;
        std::uint64_t z = state_;
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }

    /// A uniform integer below `n` (n > 0), from as many outputs as the rejection needs.
    std::uint64_t uniformBelow(std::uint64_t n) {
        return uniformBelow(n, [this] { return next(); });
    }

    /// A uniform integer below `n` (0 < n ≤ 256) from the lowest byte of outputs.
    std::uint8_t uniformByteBelow(std::uint32_t n) {
        return uniformByteBelow(n, [this] { return next(); });
    }

    /// Multiply and reject at 64 bits: the high half of output × n, taking a new output while
    /// the low half is below (2^64 − n) mod n.
    template <typename Next>
    static std::uint64_t uniformBelow(std::uint64_t n, Next&& next) {
        unsigned __int128 product = static_cast<unsigned __int128>(next()) * n;
        auto low = static_cast<std::uint64_t>(product);
        if (low < n) {
            const std::uint64_t threshold = (0 - n) % n;
            while (low < threshold) {
                product = static_cast<unsigned __int128>(next()) * n;
                low = static_cast<std::uint64_t>(product);
            }
        }
        return static_cast<std::uint64_t>(product >> 64);
    }

    /// The same rule at 8 bits: the output's lowest byte times n in 16 bits, rejecting while
    /// the low byte is below (256 − n) mod n.
    template <typename Next>
    static std::uint8_t uniformByteBelow(std::uint32_t n, Next&& next) {
        std::uint32_t product = static_cast<std::uint32_t>(next() & 0xFFu) * n;
        std::uint32_t low = product & 0xFFu;
        if (low < n) {
            const std::uint32_t threshold = (256u - n) % n;
            while (low < threshold) {
                product = static_cast<std::uint32_t>(next() & 0xFFu) * n;
                low = product & 0xFFu;
            }
        }
        return static_cast<std::uint8_t>(product >> 8);
    }

private:
    std::uint64_t state_;
};

}  // namespace bw
