#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace bw {

/// A running application as the desktop knows it: a process matched to a desktop entry.
/// A plain value.
struct RunningApplication {
    std::int32_t pid = 0;
    /// The desktop file ID without ".desktop" (e.g. "org.gnome.Rhythmbox3"), when known.
    std::optional<std::string> bundleID;
    /// The entry's Name in the user's language; absent when the entry has none.
    std::optional<std::string> localizedName;
    /// A visible entry's topmost process: what the user thinks of as "the application".
    bool isRegular = false;
    /// The entry's Icon key (a theme icon name or an absolute path), empty when none.
    std::string iconName;

    friend bool operator==(const RunningApplication&, const RunningApplication&) = default;
};

}  // namespace bw
