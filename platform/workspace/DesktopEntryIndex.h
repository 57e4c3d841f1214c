#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/workspace/DesktopEntry.h"

namespace bw {

/// The desktop entries installed for the user.
///
/// Thread: every member may be called from any thread and calls may overlap. Each call answers for
/// the files as they are (an implementation may keep what it read and read again only what
/// changed): it may block on file reads, and allocates.
class DesktopEntryIndex {
public:
    virtual ~DesktopEntryIndex() = default;

    /// Every entry, each ID once (the user's own entries hide the system's of the same ID).
    virtual std::vector<DesktopEntry> entries() = 0;

    /// The entry with this ID (without ".desktop"), or nothing.
    virtual std::optional<DesktopEntry> entry(const std::string& id) = 0;

    /// The program a command line runs, named as `DesktopEntry::executables` name it: the base
    /// name of argv[0], or, when argv[0] is a script interpreter (python3, perl, sh, ...), the
    /// base name of the script it runs. Empty when there is none. Pure; allocates.
    static std::string programName(const std::vector<std::string>& argv);

    /// True for programs that run a script named by their first non-option argument.
    static bool isScriptInterpreter(std::string_view program);
};

}  // namespace bw
