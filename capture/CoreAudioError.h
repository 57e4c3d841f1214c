#pragma once

#include <ostream>
#include <string>

#include "platform/base/Error.h"
#include "platform/hal/AudioHardwareConstants.h"

namespace bw {

/// A failed call of the audio hardware layer: its status (printed as a signed decimal number,
/// never as four characters) and what was being done.
class CoreAudioError : public Error {
public:
    CoreAudioError() = default;
    CoreAudioError(OSStatus status, std::string operation)
        : status_(status), operation_(std::move(operation)) {}

    OSStatus status() const { return status_; }
    const std::string& operation() const { return operation_; }

    /// "Audio system error <status> during <operation>"; the operation is not translated.
    std::string localizedDescription() const override;

    friend bool operator==(const CoreAudioError& a, const CoreAudioError& b) {
        return a.status_ == b.status_ && a.operation_ == b.operation_;
    }
    friend void PrintTo(const CoreAudioError& e, std::ostream* os) {
        *os << e.status_ << " \"" << e.operation_ << "\"";
    }

private:
    OSStatus status_ = 0;
    std::string operation_;
};

}  // namespace bw
