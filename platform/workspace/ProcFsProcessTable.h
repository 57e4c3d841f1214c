#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <vector>

#include "platform/workspace/ProcessTable.h"

namespace bw {

/// The process table as the proc file system shows it.
///
/// Each process is read through one open handle on its directory, so a process that ends and
/// whose id is reused meanwhile can't mix two processes into one record.
///
/// Thread: as `ProcessTable`; the object holds no mutable state.
class ProcFsProcessTable final : public ProcessTable {
public:
    /// `root` is where proc is mounted; tests point it at a tree of their own.
    explicit ProcFsProcessTable(std::filesystem::path root = "/proc");

    std::vector<std::int32_t> pids() override;
    std::optional<ProcessRecord> process(std::int32_t pid) override;

private:
    std::filesystem::path root_;
};

}  // namespace bw
