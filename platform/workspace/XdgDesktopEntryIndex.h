#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/workspace/DesktopEntryIndex.h"

namespace bw {

/// The desktop entries in $XDG_DATA_HOME/applications and $XDG_DATA_DIRS/*/applications, read
/// through GIO.
///
/// GIO takes those variables from the environment at its first use in the process and notices
/// later changes to the folders through file monitors, a moment after they happen. Every call
/// parses the entry files afresh.
///
/// Thread: as `DesktopEntryIndex`; the object holds no state.
class XdgDesktopEntryIndex final : public DesktopEntryIndex {
public:
    std::vector<DesktopEntry> entries() override;
    std::optional<DesktopEntry> entry(const std::string& id) override;

    /// `DesktopEntry::executables` for an entry's Exec and TryExec values: the program Exec runs,
    /// seen through `env VAR=value ...`, `sh -c '...'` and script interpreters, then TryExec's
    /// base name. Launchers that run an app by ID (flatpak) name no program. Pure; allocates.
    static std::vector<std::string> executablesFor(std::string_view exec, std::string_view tryExec);
};

}  // namespace bw
