#pragma once

#include <chrono>

#include "platform/hal/AudioHardwareConstants.h"

// What the parts of the PipeWire layer share: the ranges of our object ids, the graph's rate and
// how long a call waits for the server.

namespace bw::pipewire {

// One id range per kind, so an id says what it names.
constexpr AudioObjectID kDeviceBase = 0x0100000;     // + counter, one per node name
constexpr AudioObjectID kStreamBase = 0x0200000;     // + port id ('stm#' entries)
constexpr AudioObjectID kProcessBase = 0x0300000;    // + counter
constexpr AudioObjectID kTapBase = 0x0400000;        // + counter
constexpr AudioObjectID kAggregateBase = 0x0500000;  // + counter
constexpr AudioObjectID kRangeSize = 0x0100000;

constexpr bool inRange(AudioObjectID id, AudioObjectID base) {
    return id >= base && id < base + kRangeSize;
}

constexpr double kGraphRate = 48000.0;
constexpr auto kServerTimeout = std::chrono::seconds(3);

}  // namespace bw::pipewire
