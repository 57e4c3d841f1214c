#include "capture/ProcessTapError.h"

#include "platform/base/Localization.h"

namespace bw {

std::string ProcessTapError::localizedDescription() const {
    // Shown when an app cannot be tapped because the audio server has no stream for it yet.
    std::string text =
        localized("ProcessTapError",
                  "%1 has not played any audio yet. Start playback in it, then record again.");
    text.replace(text.find("%1"), 2, appName_);
    return text;
}

}  // namespace bw
