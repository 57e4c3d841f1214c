#include "capture/AudioObjectAccess.h"

#include "platform/hal/AudioStringRef.h"

namespace bw {

Expected<std::vector<std::uint32_t>, CoreAudioError> readArrayProperty(
    AudioHardware& hardware, AudioObjectPropertySelector selector, AudioObjectPropertyScope scope,
    AudioObjectID object) {
    const AudioObjectPropertyAddress address{selector, scope, kAudioObjectPropertyElementMain};
    const std::string number = std::to_string(selector);
    std::uint32_t size = 0;
    OSStatus status = hardware.getPropertyDataSize(object, address, 0, nullptr, size);
    if (status != 0) {
        return Unexpected(CoreAudioError(status, "get property size " + number));
    }
    if (size % 4 != 0) {
        return Unexpected(
            CoreAudioError(kAudioHardwareBadPropertySizeError, "invalid array property size " + number));
    }
    if (size == 0) {
        return std::vector<std::uint32_t>{};
    }
    std::vector<std::uint32_t> values(size / 4, 0);
    std::uint32_t returned = size;
    status = hardware.getPropertyData(object, address, 0, nullptr, returned, values.data());
    if (status != 0) {
        return Unexpected(CoreAudioError(status, "get property " + number));
    }
    if (returned > size || returned % 4 != 0) {
        return Unexpected(CoreAudioError(kAudioHardwareBadPropertySizeError,
                                         "changed array property size " + number));
    }
    values.resize(returned / 4);
    return values;
}

Expected<std::string, CoreAudioError> readStringProperty(AudioHardware& hardware,
                                                          AudioObjectPropertySelector selector,
                                                          AudioObjectPropertyScope scope,
                                                          AudioObjectID object) {
    AudioStringRef reference = nullptr;
    std::uint32_t size = sizeof reference;
    const AudioObjectPropertyAddress address{selector, scope, kAudioObjectPropertyElementMain};
    const OSStatus status = hardware.getPropertyData(object, address, 0, nullptr, size, &reference);
    auto owned = adoptAudioString(reference);  // the reader owns what it was given
    if (status != 0) {
        return Unexpected(
            CoreAudioError(status, "get string property " + std::to_string(selector)));
    }
    if (!owned) {
        return Unexpected(CoreAudioError(kAudioHardwareBadObjectError, "string property empty"));
    }
    return *owned;
}

Expected<AudioObjectID, CoreAudioError> defaultOutputDevice(AudioHardware& hardware) {
    return readProperty<AudioObjectID>(hardware, kAudioHardwarePropertyDefaultOutputDevice,
                                       kAudioObjectSystemObject, 0);
}

Expected<AudioObjectID, CoreAudioError> processObject(AudioHardware& hardware, std::int32_t pid) {
    AudioObjectID object = 0;
    std::uint32_t size = sizeof object;
    const AudioObjectPropertyAddress address{kAudioHardwarePropertyTranslatePIDToProcessObject,
                                             kAudioObjectPropertyScopeGlobal,
                                             kAudioObjectPropertyElementMain};
    const OSStatus status = hardware.getPropertyData(kAudioObjectSystemObject, address, sizeof pid,
                                                     &pid, size, &object);
    if (status != 0) {
        return Unexpected(CoreAudioError(status, "translate PID to process object"));
    }
    if (object == 0) {
        return Unexpected(CoreAudioError(kAudioHardwareBadObjectError,
                                         "no process object for pid " + std::to_string(pid)));
    }
    return object;
}

}  // namespace bw
