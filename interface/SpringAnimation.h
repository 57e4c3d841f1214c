#pragma once

#include "interface/Spring.h"

namespace bw {

/// One animated number that follows a `Spring` towards its target.
///
/// Time only moves through `step`, so the owner decides where it comes from (a `ConsoleClock`);
/// nothing here reads a clock or starts a timer. A new target keeps the current position and
/// velocity, so a spring that replaces another continues its motion without a jump. Main thread.
class SpringAnimation {
public:
    /// `threshold`: the distance to the target (and a tenth of the speed per second) under which
    /// the motion counts as finished and lands exactly on the target.
    explicit SpringAnimation(double value = 0.0, double threshold = 0.001);

    /// Starts (or redirects) a motion towards `target`.
    void animateTo(double target, Spring spring);

    /// Puts the value on `value` at once and stops any motion.
    void jumpTo(double value);

    /// Advances the motion by `seconds` (negative counts as 0). Returns whether it still moves.
    bool step(double seconds);

    double value() const { return value_; }
    double target() const { return target_; }
    bool isMoving() const { return moving_; }

private:
    Spring spring_;
    double value_;
    double target_;
    double velocity_ = 0.0;
    double threshold_;
    bool moving_ = false;
};

}  // namespace bw
