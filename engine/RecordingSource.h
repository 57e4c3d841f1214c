#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <variant>

namespace bw {

/// Something that can be recorded: the whole system's sound, one application, or an input device.
/// A plain value; `id` is its identity across lists, volumes, failures and levels, while equality
/// and hashing take in all four fields.
struct RecordingSource {
    /// What is captured. The alternatives' order is fixed: system audio, app, microphone.
    struct SystemAudio {
        friend bool operator==(const SystemAudio&, const SystemAudio&) = default;
    };
    struct App {
        std::int32_t pid = 0;
        std::optional<std::string> bundleID;
        friend bool operator==(const App&, const App&) = default;
    };
    struct Microphone {
        std::string deviceUID;
        friend bool operator==(const Microphone&, const Microphone&) = default;
    };
    using Kind = std::variant<SystemAudio, App, Microphone>;

    /// The id of the whole system's sound, and the level key reserved for the mix.
    static constexpr const char* kSystemID = "system";
    static constexpr const char* kMasterLevelKey = "master";

    std::string id;
    Kind kind;
    std::string name;
    bool isActive = false;

    /// "System Audio", never active.
    static RecordingSource systemAudio();
    /// "app:<bundle ID>" when there is one, else "app:pid:<pid>".
    static RecordingSource application(std::int32_t pid, std::optional<std::string> bundleID,
                                       std::string name, bool isActive);
    /// "mic:<device UID>", always active.
    static RecordingSource microphone(std::string deviceUID, std::string name);

    friend bool operator==(const RecordingSource&, const RecordingSource&) = default;
};

/// Hash of a kind: the alternative's position first, then its payload.
std::size_t hashValue(const RecordingSource::Kind& kind);
/// Hash over id, kind, name and isActive, in that order.
std::size_t hashValue(const RecordingSource& source);

}  // namespace bw

template <>
struct std::hash<bw::RecordingSource> {
    std::size_t operator()(const bw::RecordingSource& source) const {
        return bw::hashValue(source);
    }
};
