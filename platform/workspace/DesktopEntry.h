#pragma once

#include <string>
#include <vector>

namespace bw {

/// An installed application's desktop entry, as far as telling its processes apart needs.
/// A plain value.
struct DesktopEntry {
    /// The desktop file ID without ".desktop", e.g. "org.gnome.TextEditor".
    std::string id;
    /// Name in the user's language; empty when the entry has none.
    std::string name;
    /// The Icon key as written: a theme icon name or an absolute path; empty when none.
    std::string icon;
    /// Shown in menus: not NoDisplay, not Hidden, and of Type=Application.
    bool visible = false;
    /// Program names (no directories) that the entry runs: from Exec and TryExec.
    std::vector<std::string> executables;

    friend bool operator==(const DesktopEntry&, const DesktopEntry&) = default;
};

}  // namespace bw
