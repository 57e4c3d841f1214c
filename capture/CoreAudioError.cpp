#include "capture/CoreAudioError.h"

#include "platform/base/Localization.h"

namespace bw {

std::string CoreAudioError::localizedDescription() const {
    std::string text = localized("CoreAudioError", "Audio system error %1 during %2");
    const std::string status = std::to_string(status_);
    text.replace(text.find("%1"), 2, status);
    text.replace(text.find("%2"), 2, operation_);
    return text;
}

}  // namespace bw
