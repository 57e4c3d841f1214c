#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/workspace/DesktopEntryIndex.h"
#include "platform/workspace/ProcessTable.h"
#include "platform/workspace/Workspace.h"

namespace bw {

/// The workspace of a Linux desktop: processes from a process table, applications from desktop
/// entries.
///
/// A process belongs to a desktop entry when its cgroup is the scope or service that a launcher
/// made for that entry (app-[<launcher>-]<id>-<n>.scope, app-[<launcher>-]<id>[@<n>].service),
/// or else when the program it runs is one of the entry's executables. The topmost process of an
/// entry in its process tree is the application; processes below it with the same entry are its
/// helpers.
///
/// Each call takes one look: `runningApplications` asks for every process and the entries once; the
/// per-process calls ask for the process, its ancestors and the entries. The real table and index
/// keep what they read and read again only what may have changed.
///
/// Thread: as `Workspace`, provided the injected table and index are safe to share; the object
/// itself holds no mutable state.
class SystemWorkspace final : public Workspace {
public:
    static constexpr const char* kDefaultBundleID = "com.tallowfields.BrightwaveRecord";

    /// The real /proc and XDG desktop entries.
    SystemWorkspace();
    /// `ownBundleID` empty means this program has none.
    SystemWorkspace(std::shared_ptr<ProcessTable> processes,
                    std::shared_ptr<DesktopEntryIndex> desktopEntries,
                    std::string ownBundleID = kDefaultBundleID);

    std::vector<RunningApplication> runningApplications() override;
    std::optional<RunningApplication> runningApplication(std::int32_t pid) override;
    std::int32_t responsiblePID(std::int32_t pid) override;
    std::optional<std::string> processName(std::int32_t pid) override;
    std::int32_t ownPID() override;
    std::optional<std::string> ownBundleID() override;

private:
    std::shared_ptr<ProcessTable> processes_;
    std::shared_ptr<DesktopEntryIndex> desktopEntries_;
    std::string ownBundleID_;
};

}  // namespace bw
