#include "engine/RecordingSource.h"

#include "platform/base/Localization.h"

namespace bw {

namespace {
std::size_t combine(std::size_t seed, std::size_t value) {
    return seed ^ (value + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2));
}
}  // namespace

RecordingSource RecordingSource::systemAudio() {
    return RecordingSource{kSystemID, SystemAudio{}, localized("RecordingSource", "System Audio"),
                           false};
}

RecordingSource RecordingSource::application(std::int32_t pid, std::optional<std::string> bundleID,
                                             std::string name, bool isActive) {
    std::string id = bundleID ? "app:" + *bundleID : "app:pid:" + std::to_string(pid);
    return RecordingSource{std::move(id), App{pid, std::move(bundleID)}, std::move(name), isActive};
}

RecordingSource RecordingSource::microphone(std::string deviceUID, std::string name) {
    std::string id = "mic:" + deviceUID;
    return RecordingSource{std::move(id), Microphone{std::move(deviceUID)}, std::move(name), true};
}

std::size_t hashValue(const RecordingSource::Kind& kind) {
    std::size_t seed = kind.index();
    if (const auto* app = std::get_if<RecordingSource::App>(&kind)) {
        seed = combine(seed, std::hash<std::int32_t>{}(app->pid));
        seed =
            combine(seed, app->bundleID ? combine(1, std::hash<std::string>{}(*app->bundleID)) : 0);
    } else if (const auto* mic = std::get_if<RecordingSource::Microphone>(&kind)) {
        seed = combine(seed, std::hash<std::string>{}(mic->deviceUID));
    }
    return seed;
}

std::size_t hashValue(const RecordingSource& source) {
    std::size_t seed = std::hash<std::string>{}(source.id);
    seed = combine(seed, hashValue(source.kind));
    seed = combine(seed, std::hash<std::string>{}(source.name));
    return combine(seed, std::hash<bool>{}(source.isActive));
}

}  // namespace bw
