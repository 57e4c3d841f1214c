#include "capture/AudioInputDeviceEnumerator.h"

#include <algorithm>

#include "capture/AudioObjectAccess.h"
#include "platform/base/Localization.h"
#include "platform/base/Text.h"

namespace bw {

namespace {
bool startsWith(const std::string& text, const char* prefix) {
    return text.rfind(prefix, 0) == 0;
}
}  // namespace

std::vector<AudioInputDeviceEnumerator::InputDevice> AudioInputDeviceEnumerator::listInputDevices(
    AudioHardware& hardware) {
    std::vector<InputDevice> devices;
    auto objects = readArrayProperty(hardware, kAudioHardwarePropertyDevices,
                                     kAudioObjectPropertyScopeGlobal, kAudioObjectSystemObject);
    if (!objects) {
        return devices;
    }
    for (AudioObjectID device : objects.value()) {
        auto streams = readArrayProperty(hardware, kAudioDevicePropertyStreams,
                                         kAudioObjectPropertyScopeInput, device);
        if (!streams || streams.value().empty()) {
            continue;
        }
        auto uid = readStringProperty(hardware, kAudioDevicePropertyDeviceUID,
                                      kAudioObjectPropertyScopeGlobal, device);
        if (!uid) {
            continue;
        }
        auto name = readStringProperty(hardware, kAudioObjectPropertyName,
                                       kAudioObjectPropertyScopeGlobal, device);
        const std::string shownName =
            name ? name.value() : localized("AudioInputDeviceEnumerator", "Unknown Device");
        if (startsWith(uid.value(), "BrightwaveRecord-") ||
            startsWith(uid.value(), "CADefaultDeviceAggregate") ||
            startsWith(shownName, "CADefaultDeviceAggregate")) {
            continue;
        }
        devices.push_back(InputDevice{device, uid.value(), shownName});
    }
    std::stable_sort(devices.begin(), devices.end(),
                     [](const InputDevice& a, const InputDevice& b) {
                         return localizedCaseInsensitiveCompare(a.name, b.name) < 0;
                     });
    return devices;
}

std::optional<AudioDeviceID> AudioInputDeviceEnumerator::deviceID(AudioHardware& hardware,
                                                                  const std::string& uid) {
    for (const auto& device : listInputDevices(hardware)) {
        if (device.uid == uid) {
            return device.deviceID;
        }
    }
    return std::nullopt;
}

}  // namespace bw
