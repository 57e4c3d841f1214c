#include "interface/SpringAnimation.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace bw {

SpringAnimation::SpringAnimation(double value, double threshold)
    : value_(value), target_(value), threshold_(threshold) {}

void SpringAnimation::animateTo(double target, Spring spring) {
    spring_ = spring;
    target_ = target;
    moving_ = value_ != target_ || velocity_ != 0.0;
}

void SpringAnimation::jumpTo(double value) {
    value_ = value;
    target_ = value;
    velocity_ = 0.0;
    moving_ = false;
}

bool SpringAnimation::step(double seconds) {
    if (!moving_) {
        return false;
    }
    const double t = std::max(seconds, 0.0);
    const double response = std::max(spring_.response, 1e-3);
    const double omega = 2.0 * std::numbers::pi / response;
    const double zeta = std::max(spring_.dampingFraction, 0.0);
    // The closed form of a damped oscillator, so a long frame never makes the motion unstable.
    const double x0 = value_ - target_;
    const double v0 = velocity_;
    double x = 0.0;
    double v = 0.0;
    if (zeta < 1.0) {
        const double omegaD = omega * std::sqrt(1.0 - zeta * zeta);
        const double decay = std::exp(-zeta * omega * t);
        const double b = (v0 + zeta * omega * x0) / omegaD;
        const double c = std::cos(omegaD * t);
        const double s = std::sin(omegaD * t);
        x = decay * (x0 * c + b * s);
        v = decay * ((b * omegaD - zeta * omega * x0) * c - (x0 * omegaD + zeta * omega * b) * s);
    } else if (zeta == 1.0) {
        const double decay = std::exp(-omega * t);
        const double b = v0 + omega * x0;
        x = decay * (x0 + b * t);
        v = decay * (b - omega * (x0 + b * t));
    } else {
        const double root = std::sqrt(zeta * zeta - 1.0);
        const double r1 = -omega * (zeta - root);
        const double r2 = -omega * (zeta + root);
        const double c2 = (v0 - r1 * x0) / (r2 - r1);
        const double c1 = x0 - c2;
        x = c1 * std::exp(r1 * t) + c2 * std::exp(r2 * t);
        v = c1 * r1 * std::exp(r1 * t) + c2 * r2 * std::exp(r2 * t);
    }
    if (std::abs(x) < threshold_ && std::abs(v) < threshold_ * 10.0) {
        jumpTo(target_);
        return false;
    }
    value_ = target_ + x;
    velocity_ = v;
    return true;
}

}  // namespace bw
