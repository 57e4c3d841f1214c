#include "capture/AudioProcessEnumerator.h"

#include <algorithm>

#include "capture/AudioObjectAccess.h"
#include "platform/base/Text.h"

namespace bw {

std::vector<AudioProcessEnumerator::ProcessInfo> AudioProcessEnumerator::listProcesses(
    AudioHardware& hardware, Workspace& workspace) {
    std::set<std::int32_t> playing;
    if (auto objects = readArrayProperty(hardware, kAudioHardwarePropertyProcessObjectList,
                                         kAudioObjectPropertyScopeGlobal, kAudioObjectSystemObject)) {
        for (AudioObjectID object : objects.value()) {
            auto pid = readProperty<std::int32_t>(hardware, kAudioProcessPropertyPID, object, -1);
            if (!pid || pid.value() <= 0) {
                continue;
            }
            auto running =
                readProperty<std::uint32_t>(hardware, kAudioProcessPropertyIsRunningOutput, object, 0);
            if (!running || running.value() == 0) {
                continue;
            }
            playing.insert(pid.value());
        }
    }
    std::vector<RunningAppInfo> apps;
    for (const auto& app : workspace.runningApplications()) {
        if (!app.localizedName) {
            continue;
        }
        apps.push_back(RunningAppInfo{app.pid, app.bundleID, *app.localizedName, app.isRegular});
    }
    return mergeProcesses(
        apps, playing, workspace.ownPID(),
        [&](std::int32_t pid) { return responsiblePID(workspace, pid); },
        [&](std::int32_t pid) { return fallbackName(workspace, pid); });
}

std::vector<AudioProcessEnumerator::ProcessInfo> AudioProcessEnumerator::mergeProcesses(
    const std::vector<RunningAppInfo>& apps, const std::set<std::int32_t>& playingPIDs,
    std::int32_t ownPID, const std::function<std::int32_t(std::int32_t)>& responsiblePID,
    const std::function<std::string(std::int32_t)>& fallbackName) {
    std::set<std::int32_t> credited = playingPIDs;
    for (std::int32_t pid : playingPIDs) {
        credited.insert(responsiblePID(pid));
    }
    std::vector<ProcessInfo> result;
    std::set<std::int32_t> listed;
    for (const auto& app : apps) {
        if (app.pid < 1 || app.pid == ownPID) {
            continue;
        }
        const bool playing = credited.contains(app.pid);
        if (!playing && !app.isRegular) {
            continue;
        }
        listed.insert(app.pid);
        result.push_back(ProcessInfo{app.pid, app.bundleID, app.name, playing});
    }
    for (std::int32_t pid : playingPIDs) {
        if (listed.contains(pid)) {
            continue;
        }
        const std::int32_t responsible = responsiblePID(pid);
        if (pid == ownPID || responsible == ownPID || listed.contains(responsible)) {
            continue;
        }
        result.push_back(ProcessInfo{pid, std::nullopt, fallbackName(pid), true});
    }
    std::stable_sort(result.begin(), result.end(), [](const ProcessInfo& a, const ProcessInfo& b) {
        if (a.isPlayingAudio != b.isPlayingAudio) {
            return a.isPlayingAudio;
        }
        return localizedCaseInsensitiveCompare(a.name, b.name) < 0;
    });
    return result;
}

std::int32_t AudioProcessEnumerator::responsiblePID(Workspace& workspace, std::int32_t pid) {
    const std::int32_t responsible = workspace.responsiblePID(pid);
    return responsible < 1 ? pid : responsible;
}

std::string AudioProcessEnumerator::fallbackName(Workspace& workspace, std::int32_t pid) {
    auto name = workspace.processName(pid);
    if (!name || name->empty()) {
        return "PID " + std::to_string(pid);
    }
    return repairedUTF8(std::string_view(*name).substr(0, 1024));
}

}  // namespace bw
