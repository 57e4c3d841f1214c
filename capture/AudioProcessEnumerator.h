#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/hal/AudioHardware.h"
#include "platform/workspace/Workspace.h"

namespace bw {

/// Which running programs can be offered for recording, and which of them play now. Joins the
/// desktop's applications with the audio layer's process objects through the responsible-process
/// mapping, so a helper's sound is credited to its application. No state; any thread.
class AudioProcessEnumerator {
public:
    struct RunningAppInfo {
        std::int32_t pid = 0;
        std::optional<std::string> bundleID;
        std::string name;
        bool isRegular = false;
        friend bool operator==(const RunningAppInfo&, const RunningAppInfo&) = default;
    };
    struct ProcessInfo {
        std::int32_t pid = 0;
        std::optional<std::string> bundleID;
        std::string name;
        bool isPlayingAudio = false;
        friend bool operator==(const ProcessInfo&, const ProcessInfo&) = default;
    };

    /// The list in display order: playing first, then by name (case-insensitive, locale-aware).
    /// Never fails; every failed read only shortens it. Blocks on the audio server and /proc.
    static std::vector<ProcessInfo> listProcesses(AudioHardware& hardware, Workspace& workspace);

    /// The pure rule behind `listProcesses`.
    static std::vector<ProcessInfo> mergeProcesses(
        const std::vector<RunningAppInfo>& apps, const std::set<std::int32_t>& playingPIDs,
        std::int32_t ownPID, const std::function<std::int32_t(std::int32_t)>& responsiblePID,
        const std::function<std::string(std::int32_t)>& fallbackName);

    /// The process responsible for `pid`; `pid` itself when the answer is below 1.
    static std::int32_t responsiblePID(Workspace& workspace, std::int32_t pid);

    /// The process's short name (at most 1024 bytes, repaired UTF-8), else "PID <pid>".
    static std::string fallbackName(Workspace& workspace, std::int32_t pid);
};

}  // namespace bw
