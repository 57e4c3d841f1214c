#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace bw {

/// The bytes of one grain texture: white specks with straight alpha on a transparent field.
///
/// A pure function of the pixel size: the same size gives the same bytes on every run and
/// machine. Rows are `width` × 4 bytes with no gap, pixels left to right, rows top to bottom,
/// bytes red, green, blue, alpha. Any thread.
struct GrainPixels {
    int width = 0;
    int height = 0;
    std::vector<std::uint8_t> bytes;

    /// The largest texture made, in bytes; a bigger request yields nothing.
    static constexpr std::int64_t maxBytes = std::int64_t(1) << 30;

    /// The generator's seed for a size: (width << 32) XOR height XOR 0x4C554D454E.
    static std::uint64_t seed(int width, int height);

    /// How many specks a size gets: one per 18 pixels (integer division), at least 1.
    static std::int64_t speckCount(int width, int height);

    /// Draws the texture: for each speck, x below width, y below height and an alpha step below
    /// 192, all from one running SplitMix64; the pixel becomes 255, 255, 255, step + 64, a later
    /// speck replacing an earlier one. Nothing for a size below 1 × 1 or above `maxBytes`.
    /// Allocates the whole buffer once; one pass over the specks.
    static std::optional<GrainPixels> make(int width, int height);
};

}  // namespace bw
