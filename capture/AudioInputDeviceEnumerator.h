#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/hal/AudioHardware.h"

namespace bw {

/// The input devices a user can record from, identified across runs by their UID. No state; any
/// thread; every call reads the hardware afresh.
class AudioInputDeviceEnumerator {
public:
    struct InputDevice {
        AudioDeviceID deviceID = 0;
        std::string uid;
        std::string name;
        friend bool operator==(const InputDevice&, const InputDevice&) = default;
    };

    /// Devices with input streams, less this program's own capture devices and the system's
    /// private aggregates, sorted by name (case-insensitive, locale-aware, stable). Never fails.
    static std::vector<InputDevice> listInputDevices(AudioHardware& hardware);

    /// The device of the first listed entry with that UID, or nothing.
    static std::optional<AudioDeviceID> deviceID(AudioHardware& hardware, const std::string& uid);
};

}  // namespace bw
