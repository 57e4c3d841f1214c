#include "interface/GrainPixels.h"

#include "interface/SplitMix64.h"

namespace bw {

std::uint64_t GrainPixels::seed(int width, int height) {
    return (static_cast<std::uint64_t>(static_cast<std::int64_t>(width)) << 32) ^
           static_cast<std::uint64_t>(static_cast<std::int64_t>(height)) ^ 0x4C554D454Eull;
}

std::int64_t GrainPixels::speckCount(int width, int height) {
    const std::int64_t pixels = std::int64_t(width) * height;
    return pixels >= 18 ? pixels / 18 : 1;
}

std::optional<GrainPixels> GrainPixels::make(int width, int height) {
    if (width < 1 || height < 1 || std::int64_t(width) * height * 4 > maxBytes) {
        return std::nullopt;
    }
    GrainPixels pixels;
    pixels.width = width;
    pixels.height = height;
    pixels.bytes.assign(static_cast<std::size_t>(width) * 4 * height, 0);

    SplitMix64 generator(seed(width, height));
    const std::size_t rowBytes = static_cast<std::size_t>(width) * 4;
    for (std::int64_t i = speckCount(width, height); i > 0; --i) {
        const auto x = generator.uniformBelow(static_cast<std::uint64_t>(width));
        const auto y = generator.uniformBelow(static_cast<std::uint64_t>(height));
        const auto alphaStep = generator.uniformByteBelow(192);
        std::uint8_t* pixel = pixels.bytes.data() + y * rowBytes + x * 4;
        pixel[0] = 255;
        pixel[1] = 255;
        pixel[2] = 255;
        pixel[3] = static_cast<std::uint8_t>(alphaStep + 64);
    }
    return pixels;
}

}  // namespace bw
