#pragma once

#include <cstdint>

namespace bw {

/// What a process tap hears: one application (by a process id of it) or the whole system.
class TapTarget {
public:
    static TapTarget process(std::int32_t pid) { return TapTarget(false, pid); }
    static TapTarget systemAudio() { return TapTarget(true, 0); }

    bool isSystemAudio() const { return systemAudio_; }
    /// The target's process id; 0 for system audio.
    std::int32_t pid() const { return pid_; }

    friend bool operator==(const TapTarget&, const TapTarget&) = default;

private:
    TapTarget(bool systemAudio, std::int32_t pid) : systemAudio_(systemAudio), pid_(pid) {}
    bool systemAudio_;
    std::int32_t pid_;
};

}  // namespace bw
