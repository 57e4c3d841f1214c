#pragma once

#include <string>
#include <system_error>

#include "platform/base/Error.h"

namespace bw {

/// A failure of the operating system (files and folders): what was being done and the system's
/// own reason, e.g. "Could not create the folder “/a/b”: Permission denied".
class SystemError : public Error {
public:
    SystemError(std::string action, std::error_code code)
        : action_(std::move(action)), code_(code) {}

    const std::error_code& code() const { return code_; }
    std::string localizedDescription() const override { return action_ + ": " + code_.message(); }

private:
    std::string action_;
    std::error_code code_;
};

}  // namespace bw
