#pragma once

#include <optional>

#include "platform/hal/AudioHardware.h"
#include "platform/hal/AudioStreamBasicDescription.h"

namespace bw::detail {

/// A device's stream format in the given scope, or nothing when it can't be read.
inline std::optional<AudioStreamBasicDescription> readDeviceStreamFormat(
    AudioHardware& hardware, AudioDeviceID device, AudioObjectPropertyScope scope) {
    AudioStreamBasicDescription asbd;
    std::uint32_t size = sizeof asbd;
    const AudioObjectPropertyAddress address{kAudioDevicePropertyStreamFormat, scope,
                                             kAudioObjectPropertyElementMain};
    if (hardware.getPropertyData(device, address, 0, nullptr, size, &asbd) != 0 ||
        size != sizeof asbd) {
        return std::nullopt;
    }
    return asbd;
}

/// A device id stored in a system property (the default devices), or 0.
inline AudioDeviceID readSystemDevice(AudioHardware& hardware, AudioObjectPropertySelector selector,
                                      OSStatus* status = nullptr) {
    AudioDeviceID device = 0;
    std::uint32_t size = sizeof device;
    const AudioObjectPropertyAddress address{selector, kAudioObjectPropertyScopeGlobal,
                                             kAudioObjectPropertyElementMain};
    const OSStatus result =
        hardware.getPropertyData(kAudioObjectSystemObject, address, 0, nullptr, size, &device);
    if (status != nullptr) {
        *status = result;
    }
    return result == 0 && size == sizeof device ? device : 0;
}

}  // namespace bw::detail
