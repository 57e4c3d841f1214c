#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace bw {

/// What the system says about one process at the moment it was read. A plain value.
struct ProcessRecord {
    std::int32_t pid = 0;
    /// 0 for the first process and for kernel threads' root.
    std::int32_t parentPID = 0;
    /// The command name (at most 15 bytes on Linux).
    std::string name;
    /// The program's path; empty when it can't be read (another user's process, a zombie).
    std::string executable;
    /// argv as the process shows it now; empty for kernel threads and zombies.
    std::vector<std::string> commandLine;
    /// The path in the unified cgroup hierarchy, e.g. "/user.slice/.../app-gnome-foo-12.scope";
    /// empty when the process has none.
    std::string cgroup;

    friend bool operator==(const ProcessRecord&, const ProcessRecord&) = default;
};

}  // namespace bw
