#pragma once

#include <map>
#include <string>
#include <variant>

#include "platform/base/Error.h"

namespace bw {

/// Why a recording could not start: no source started (with each source's failure text, keyed by
/// source id), the file could not be created (with the underlying error), or the mix could not be
/// routed to the file.
class RecordingEngineError : public Error {
public:
    struct NoSourcesStarted {
        std::map<std::string, std::string> failures;
    };
    struct FileCreationFailed {
        ErrorRef underlying;
    };
    struct MixNotTapped {};

    static RecordingEngineError noSourcesStarted(std::map<std::string, std::string> failures);
    static RecordingEngineError fileCreationFailed(ErrorRef underlying);
    /// The mix could not be routed to the file.
    static RecordingEngineError mixNotTapped();

    const std::variant<NoSourcesStarted, FileCreationFailed, MixNotTapped>& reason() const {
        return reason_;
    }

    std::string localizedDescription() const override;

private:
    explicit RecordingEngineError(
        std::variant<NoSourcesStarted, FileCreationFailed, MixNotTapped> reason)
        : reason_(std::move(reason)) {}

    std::variant<NoSourcesStarted, FileCreationFailed, MixNotTapped> reason_;
};

}  // namespace bw
