#pragma once

// Typed reads of audio object properties: the one place that turns the hardware layer's byte-sized
// property data into values, and a failed read into a CoreAudioError. Nothing is cached; every
// read asks the hardware. Any thread; each read may block briefly on the audio server.

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "capture/CoreAudioError.h"
#include "platform/base/Expected.h"
#include "platform/hal/AudioHardware.h"

namespace bw {

/// A list of 32-bit values (object lists). Size 0 is an empty list without a second call; a size
/// that isn't a multiple of 4 fails before reading; a list that shrank between the calls is
/// returned as it came, one that grew fails.
Expected<std::vector<std::uint32_t>, CoreAudioError> readArrayProperty(
    AudioHardware& hardware, AudioObjectPropertySelector selector, AudioObjectPropertyScope scope,
    AudioObjectID object);

/// A string property; a null reference fails with '!obj' and "string property empty".
Expected<std::string, CoreAudioError> readStringProperty(AudioHardware& hardware,
                                                          AudioObjectPropertySelector selector,
                                                          AudioObjectPropertyScope scope,
                                                          AudioObjectID object);

/// One plain value of fixed size in the global scope, starting from `initial`; any other size
/// than the type's fails with '!siz' and "unexpected property size ".
template <class T>
Expected<T, CoreAudioError> readProperty(AudioHardware& hardware,
                                         AudioObjectPropertySelector selector, AudioObjectID object,
                                         T initial) {
    T value = initial;
    std::uint32_t size = sizeof(T);
    const AudioObjectPropertyAddress address{selector, kAudioObjectPropertyScopeGlobal,
                                             kAudioObjectPropertyElementMain};
    const OSStatus status = hardware.getPropertyData(object, address, 0, nullptr, size, &value);
    if (status != 0) {
        return Unexpected(CoreAudioError(status, "get property " + std::to_string(selector)));
    }
    if (size != sizeof(T)) {
        return Unexpected(CoreAudioError(kAudioHardwareBadPropertySizeError,
                                         "unexpected property size " + std::to_string(selector)));
    }
    return value;
}

/// The system's default output device (an answer of 0 is not checked here).
Expected<AudioObjectID, CoreAudioError> defaultOutputDevice(AudioHardware& hardware);

/// The process object of a process id; '!obj' when it has none.
Expected<AudioObjectID, CoreAudioError> processObject(AudioHardware& hardware, std::int32_t pid);

}  // namespace bw
