#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "platform/workspace/ProcessRecord.h"

namespace bw {

/// The system's processes, read on demand.
///
/// Thread: every member may be called from any thread and calls may overlap. Each call answers for
/// the system as it is now (an implementation may keep what can't have changed since it last read
/// it): it blocks briefly on file reads and allocates.
class ProcessTable {
public:
    virtual ~ProcessTable() = default;

    /// The ids of the processes that exist now, ascending.
    virtual std::vector<std::int32_t> pids() = 0;

    /// One process, or nothing when it doesn't exist (or ended while it was being read).
    virtual std::optional<ProcessRecord> process(std::int32_t pid) = 0;
};

}  // namespace bw
