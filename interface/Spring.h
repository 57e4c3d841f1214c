#pragma once

namespace bw {

/// A spring motion: how long one swing takes (response, seconds) and how quickly it stops
/// (damping fraction: 1 settles without overshoot, below 1 bounces). The blend duration is how
/// long a spring that replaces a running one takes over its velocity; 0 hands it over at once.
struct Spring {
    double response = 0.55;
    double dampingFraction = 1.0;
    double blendDuration = 0.0;
};

}  // namespace bw
