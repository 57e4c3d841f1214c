#pragma once

#include "platform/hal/AudioHardwareConstants.h"

namespace bw {

/// Where a property lives on an audio object: selector, scope and element.
struct AudioObjectPropertyAddress {
    AudioObjectPropertySelector mSelector = 0;
    AudioObjectPropertyScope mScope = kAudioObjectPropertyScopeGlobal;
    AudioObjectPropertyElement mElement = kAudioObjectPropertyElementMain;

    friend bool operator==(const AudioObjectPropertyAddress&,
                           const AudioObjectPropertyAddress&) = default;
};

}  // namespace bw
