#pragma once

#include <functional>
#include <string>

namespace bw {

/// Receives the one text with which a running recording reports a failure. Called on the thread
/// that met the failure, outside every lock of the reporter.
using FailureCallback = std::function<void(const std::string& message)>;

}  // namespace bw
