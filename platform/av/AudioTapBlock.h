#pragma once

#include <functional>
#include <memory>

#include "platform/av/PCMBuffer.h"
#include "platform/hal/AudioTimeStamp.h"

namespace bw {

/// Receives the rendered output of a node: a buffer of its own (the receiver may keep it) and the
/// time of its first frame on the node's sample clock. Runs on the tap's own thread, never on the
/// render thread, one call at a time.
using AudioTapBlock = std::function<void(std::shared_ptr<PCMBuffer> buffer, AudioTimeStamp when)>;

/// Hears, once, on the tap's own thread, that the tap fell behind its node and dropped frames.
using AudioTapDropHandler = std::function<void()>;

}  // namespace bw
