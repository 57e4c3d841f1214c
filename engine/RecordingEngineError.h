#pragma once

#include <map>
#include <string>
#include <variant>

#include "platform/base/Error.h"

namespace bw {

/// Why a recording could not start: no source started (with each source's failure text, keyed by
/// source id), or the file could not be created (with the underlying error).
class RecordingEngineError : public Error {
public:
    struct NoSourcesStarted {
        std::map<std::string, std::string> failures;
    };
    struct FileCreationFailed {
        ErrorRef underlying;
    };

    static RecordingEngineError noSourcesStarted(std::map<std::string, std::string> failures);
    static RecordingEngineError fileCreationFailed(ErrorRef underlying);

    const std::variant<NoSourcesStarted, FileCreationFailed>& reason() const { return reason_; }

    std::string localizedDescription() const override;

private:
    explicit RecordingEngineError(std::variant<NoSourcesStarted, FileCreationFailed> reason)
        : reason_(std::move(reason)) {}

    std::variant<NoSourcesStarted, FileCreationFailed> reason_;
};

}  // namespace bw
