#pragma once

#include <memory>

#include "platform/av/PCMBuffer.h"

namespace bw {

/// A new buffer of the same format and length holding a copy of the samples, or null when none
/// can be made or either buffer lacks float samples. Allocates; any thread.
std::shared_ptr<PCMBuffer> copyOfBuffer(const PCMBuffer& source);

}  // namespace bw
