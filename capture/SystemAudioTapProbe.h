#pragma once

#include "platform/base/Error.h"
#include "platform/base/Expected.h"

namespace bw {

/// Tries to make a tap on the whole system's sound, which is how the audio system answers
/// whether this program may record it. Runs off the main thread; may block on the audio server.
class SystemAudioTapProbe {
public:
    virtual ~SystemAudioTapProbe() = default;
    virtual Expected<void, ErrorRef> makeTap() = 0;
};

}  // namespace bw
