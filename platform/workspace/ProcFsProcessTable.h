#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <vector>

#include "platform/workspace/ProcessTable.h"

namespace bw {

/// The process table as the proc file system shows it.
///
/// Several files of one process are read through one open handle on its directory, so a process
/// that ends and whose id is reused meanwhile can't mix two processes into one record.
///
/// What can't have changed is not read again. Every call reads /proc/PID/stat (for the parent, and
/// to tell the same run of the same program by its start time, its name and, where the kernel
/// shows it, its memory layout, which an exec() renews). For the same run, the name and program
/// are kept; the arguments too where an exec() would show (otherwise they are read again); the
/// cgroup once the process is 30 seconds old (launchers move a new process into its unit just
/// after starting it). `pids` forgets the processes it no longer lists. Stat files without the
/// kernel's full set of fields (fake trees) are read in full every time.
///
/// Thread: as `ProcessTable`. One mutex guards what was read; it is never held over file reads.
class ProcFsProcessTable final : public ProcessTable {
public:
    /// `root` is where proc is mounted; tests point it at a tree of their own.
    explicit ProcFsProcessTable(std::filesystem::path root = "/proc");
    ~ProcFsProcessTable() override;
    ProcFsProcessTable(const ProcFsProcessTable&) = delete;
    ProcFsProcessTable& operator=(const ProcFsProcessTable&) = delete;

    std::vector<std::int32_t> pids() override;
    std::optional<ProcessRecord> process(std::int32_t pid) override;

private:
    struct Cache;

    std::filesystem::path root_;
    std::unique_ptr<Cache> cache_;
};

}  // namespace bw
