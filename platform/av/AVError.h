#pragma once

#include <cstdint>
#include <string>

#include "platform/base/Error.h"

namespace bw {

/// A failure of the audio graph or of an audio file: a code (a hardware status where one caused it)
/// and a sentence for the user.
class AVError : public Error {
public:
    AVError() = default;
    AVError(std::int32_t code, std::string localizedDescription)
        : code_(code), description_(std::move(localizedDescription)) {}

    std::int32_t code() const { return code_; }
    std::string localizedDescription() const override { return description_; }

private:
    std::int32_t code_ = 0;
    std::string description_;
};

}  // namespace bw
