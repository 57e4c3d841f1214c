#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/workspace/RunningApplication.h"

namespace bw {

/// The desktop's view of running programs: applications, the process responsible for a process,
/// and process names.
///
/// Thread: every member may be called from any thread and calls may overlap; each call answers for
/// the system as it is now (may block briefly on /proc and the desktop entry files; allocates).
class Workspace {
public:
    virtual ~Workspace() = default;

    /// Every running application, in process-id order.
    virtual std::vector<RunningApplication> runningApplications() = 0;

    /// The application whose process this is, or nothing.
    virtual std::optional<RunningApplication> runningApplication(std::int32_t pid) = 0;

    /// The nearest ancestor of `pid`, itself included, that is a running application; `pid`
    /// itself when there is none; 0 when the process doesn't exist.
    virtual std::int32_t responsiblePID(std::int32_t pid) = 0;

    /// The process's short name (its command name), or nothing when it is gone.
    virtual std::optional<std::string> processName(std::int32_t pid) = 0;

    /// This program's process id and, when it was started from its desktop entry, its bundle ID.
    virtual std::int32_t ownPID() = 0;
    virtual std::optional<std::string> ownBundleID() = 0;
};

}  // namespace bw
