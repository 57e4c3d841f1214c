#pragma once

#include <string_view>

namespace bw {

/// Whether the desktop asks programs to keep motion to a minimum (the pulse of the record key,
/// the walkthrough's fades): GNOME's "enable-animations" turned off, else KDE's animation speed
/// set to instant. Read at each call; any thread; reads a settings store or a small file.
class DesktopMotionSetting {
public:
    DesktopMotionSetting() = delete;

    static bool reduceMotion();

    /// KDE's answer from the text of a kdeglobals file: AnimationDurationFactor 0 in [KDE].
    static bool reduceMotionInKdeGlobals(std::string_view text);
};

}  // namespace bw
