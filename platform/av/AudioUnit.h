#pragma once

#include <cstdint>

#include "platform/hal/AudioHardwareConstants.h"

namespace bw {

/// The unit behind a node, for the few properties set on it directly (which device an input node
/// reads: `kAudioOutputUnitProperty_CurrentDevice`).
///
/// Thread: the engine's controlling thread, engine stopped.
class AudioUnit {
public:
    virtual ~AudioUnit() = default;

    /// Status 0 on success; `kAudioUnitErr_InvalidProperty` for a property the unit doesn't have.
    virtual OSStatus setProperty(std::uint32_t propertyID, std::uint32_t scope,
                                 std::uint32_t element, const void* data, std::uint32_t size) = 0;
};

}  // namespace bw
