#include "engine/RecordingEngineError.h"

#include "platform/base/Localization.h"

namespace bw {

RecordingEngineError RecordingEngineError::noSourcesStarted(
    std::map<std::string, std::string> failures) {
    return RecordingEngineError(NoSourcesStarted{std::move(failures)});
}

RecordingEngineError RecordingEngineError::fileCreationFailed(ErrorRef underlying) {
    return RecordingEngineError(FileCreationFailed{std::move(underlying)});
}

RecordingEngineError RecordingEngineError::mixNotTapped() {
    return RecordingEngineError(MixNotTapped{});
}

std::string RecordingEngineError::localizedDescription() const {
    if (const auto* none = std::get_if<NoSourcesStarted>(&reason_)) {
        std::string text =
            localized("RecordingEngineError", "No audio source could be started.") + "\n";
        bool first = true;
        for (const auto& [id, failure] : none->failures) {
            if (!first) {
                text += "\n";
            }
            text += failure;
            first = false;
        }
        return text;
    }
    if (std::holds_alternative<MixNotTapped>(reason_)) {
        return localized("RecordingEngineError",
                         "The mix could not be routed to the recording file.");
    }
    const auto& file = std::get<FileCreationFailed>(reason_);
    return localized("RecordingEngineError", "Could not create the recording file.") + " " +
           (file.underlying ? file.underlying->localizedDescription() : std::string());
}

}  // namespace bw
