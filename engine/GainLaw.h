#pragma once

#include <cmath>

namespace bw {

/// How a fader volume (linear, unity 1.0, up to 1.5) splits between a player's volume, which
/// stops at 1.0, and the gain unit's global gain in decibels, which takes the part above unity.
struct GainSetting {
    float playerVolume = 1.0f;
    float globalGainDb = 0.0f;

    friend bool operator==(const GainSetting&, const GainSetting&) = default;
};

/// The fader law: not finite → unity; ≤ 0 → silence; up to 1 → player volume; above 1 → player at
/// 1 and 20·log10(v) dB, with v capped at 1.5 (3.5218 dB).
inline GainSetting gainLaw(float volume) {
    if (!std::isfinite(volume)) {
        return {1.0f, 0.0f};
    }
    if (volume <= 0.0f) {
        return {0.0f, 0.0f};
    }
    if (volume <= 1.0f) {
        return {volume, 0.0f};
    }
    const float capped = volume > 1.5f ? 1.5f : volume;
    return {1.0f, 20.0f * std::log10(capped)};
}

}  // namespace bw
