#include "platform/workspace/DesktopMotionSetting.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

// GLib isn't built with ThreadSanitizer, which then sees only half of the hand-offs of GSettings'
// worker thread and reports races. GLib's own calls go unwatched; ours don't.
extern "C" const char* __tsan_default_suppressions() {
    return "called_from_lib:libglib-2.0.so\ncalled_from_lib:libgio-2.0.so\n"
           "called_from_lib:libgobject-2.0.so\n";
}

namespace bw {
namespace {

namespace fs = std::filesystem;

TEST(DesktopMotionSettingTest, KdeAsksForNoMotionOnlyWithAnInstantAnimationSpeed) {
    const struct {
        const char* text;
        bool reduce;
    } cases[] = {
        {"[KDE]\nAnimationDurationFactor=0\n", true},
        {"[General]\nName=x\n\n[KDE] \n  AnimationDurationFactor = 0.0 \n", true},
        {"[KDE]\nAnimationDurationFactor=0.5\n", false},
        {"[General]\nAnimationDurationFactor=0\n[KDE]\nLookAndFeelPackage=x\n", false},
        {"[KDE]\nAnimationDurationFactor=fast\n", false},
        {"", false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(DesktopMotionSetting::reduceMotionInKdeGlobals(c.text), c.reduce) << c.text;
    }
}

// One case per process: GSettings keeps the store it opened first.
TEST(DesktopMotionSettingTest, GnomeWithAnimationsTurnedOffAsksForNoMotion) {
    const fs::path home = fs::temp_directory_path() / ("bw-motion-" + std::to_string(::getpid()));
    fs::create_directories(home / "glib-2.0" / "settings");
    std::ofstream(home / "glib-2.0" / "settings" / "keyfile")
        << "[org/gnome/desktop/interface]\nenable-animations=false\n";
    setenv("XDG_CONFIG_HOME", home.c_str(), 1);
    setenv("GSETTINGS_BACKEND", "keyfile", 1);
    EXPECT_TRUE(DesktopMotionSetting::reduceMotion());
    fs::remove_all(home);
}

}  // namespace
}  // namespace bw
