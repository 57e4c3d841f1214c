#include "platform/workspace/DesktopMotionSetting.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/platform/workspace/WorkspaceTestSupport.h"

namespace bw {
namespace {

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
    test::TemporaryDirectory home;
    test::writeFile(home.path() / "glib-2.0" / "settings" / "keyfile",
                    "[org/gnome/desktop/interface]\nenable-animations=false\n");
    setenv("XDG_CONFIG_HOME", home.path().c_str(), 1);
    setenv("GSETTINGS_BACKEND", "keyfile", 1);
    EXPECT_TRUE(DesktopMotionSetting::reduceMotion());
}

}  // namespace
}  // namespace bw
