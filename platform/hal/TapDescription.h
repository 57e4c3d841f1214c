#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "platform/hal/AudioHardwareConstants.h"

namespace bw {

/// What a process tap hears: a stereo mix of some processes, or of all but some.
///
/// A plain value. The hardware layer copies it at tap creation and again when the tap's
/// `kAudioTapPropertyDescription` is written (with a `const TapDescription*` as the 8-byte value).
struct TapDescription {
    enum class MuteBehavior : int {
        unmuted = 0,          // the tapped audio still reaches its output
        muted = 1,            // the tapped audio is always silenced at its output
        mutedWhenTapped = 2,  // silenced at its output while the tap is being read
    };

    /// Process objects: included when `isExclusive` is false, left out of a global mix when true.
    std::vector<AudioObjectID> processes;
    bool isExclusive = false;
    bool isMixdown = true;
    bool isMono = false;
    /// Applications by bundle ID, beside `processes` (only where the hardware supports it).
    std::vector<std::string> bundleIDs;
    std::string uuidString;
    std::string name;
    bool isPrivate = false;
    MuteBehavior muteBehavior = MuteBehavior::unmuted;

    /// A stereo mix of exactly these processes.
    static TapDescription stereoMixdownOfProcesses(std::vector<AudioObjectID> processes) {
        TapDescription description;
        description.processes = std::move(processes);
        return description;
    }

    /// A stereo mix of everything the system plays, less these processes.
    static TapDescription stereoGlobalTapButExcludeProcesses(std::vector<AudioObjectID> processes) {
        TapDescription description;
        description.processes = std::move(processes);
        description.isExclusive = true;
        return description;
    }

    /// Reads the `kAudioTapPropertyDescription` value (`size` bytes at `data`) into `out`: a bad
    /// size or missing value is kAudioHardwareBadPropertySizeError, a null description
    /// kAudioHardwareIllegalOperationError; `out` changes only on success.
    static OSStatus readPropertyValue(std::uint32_t size, const void* data, TapDescription& out) {
        if (size != sizeof(const TapDescription*) || data == nullptr) {
            return kAudioHardwareBadPropertySizeError;
        }
        const TapDescription* description = nullptr;
        std::memcpy(&description, data, sizeof description);
        if (description == nullptr) {
            return kAudioHardwareIllegalOperationError;
        }
        out = *description;
        return kAudioHardwareNoError;
    }

    friend bool operator==(const TapDescription&, const TapDescription&) = default;
};

}  // namespace bw
