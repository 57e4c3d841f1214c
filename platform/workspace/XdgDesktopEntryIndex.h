#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/workspace/DesktopEntryIndex.h"

namespace bw {

/// The desktop entries in $XDG_DATA_HOME/applications and $XDG_DATA_DIRS/*/applications (their
/// subfolders included), each file read through GIO's rules.
///
/// The folders come from the environment at the first call. That call reads every entry; later
/// calls first take the changes inotify reported since (files and folders added, changed or
/// removed, folders created later, programs named by Exec or TryExec appearing or going in $PATH
/// and the programs' folders) and read again only the files concerned, then answer from memory.
///
/// Thread: as `DesktopEntryIndex`. A call that finds another one reading files waits for it, so
/// no call answers from an older look than its own start.
class XdgDesktopEntryIndex final : public DesktopEntryIndex {
public:
    XdgDesktopEntryIndex();
    ~XdgDesktopEntryIndex() override;
    XdgDesktopEntryIndex(const XdgDesktopEntryIndex&) = delete;
    XdgDesktopEntryIndex& operator=(const XdgDesktopEntryIndex&) = delete;

    std::vector<DesktopEntry> entries() override;
    std::optional<DesktopEntry> entry(const std::string& id) override;

    /// `DesktopEntry::executables` for an entry's Exec and TryExec values: the program Exec runs,
    /// seen through `env VAR=value ...`, `sh -c '...'` and script interpreters, then TryExec's
    /// base name. Launchers that run an app by ID (flatpak) name no program. Pure; allocates.
    static std::vector<std::string> executablesFor(std::string_view exec, std::string_view tryExec);

private:
    struct Table;
    class Scanner;

    /// The table brought up to date.
    std::shared_ptr<const Table> current();

    std::mutex mutex_;
    std::condition_variable idle_;
    bool scanning_ = false;               // guarded by mutex_
    std::shared_ptr<const Table> table_;  // guarded by mutex_
    // Used only by the call that set scanning_, and never under mutex_.
    std::unique_ptr<Scanner> scanner_;
};

}  // namespace bw
