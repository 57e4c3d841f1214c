#pragma once

#include <cstddef>
#include <functional>

namespace bw {

/// A grain texture's size in pixels: the key of `GrainTextureCache`. Equal when both fields are.
struct GrainTextureKey {
    int widthPixels = 0;
    int heightPixels = 0;

    friend bool operator==(const GrainTextureKey&, const GrainTextureKey&) = default;
};

}  // namespace bw

template <>
struct std::hash<bw::GrainTextureKey> {
    std::size_t operator()(const bw::GrainTextureKey& key) const noexcept {
        return std::hash<long long>()((static_cast<long long>(key.widthPixels) << 32) ^
                                      static_cast<unsigned>(key.heightPixels));
    }
};
