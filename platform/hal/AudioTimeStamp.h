#pragma once

#include <cstdint>

namespace bw {

/// The time of an IO cycle: its first frame's position on the device's sample clock, and the
/// monotonic clock in nanoseconds at which the cycle began.
struct AudioTimeStamp {
    double mSampleTime = 0;
    std::uint64_t mHostTime = 0;
};

}  // namespace bw
