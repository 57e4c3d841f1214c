// Paints the main window's console header at scale 2, idle and recording, and compares it with
// the reviewed pictures (dark grained panel, red key with its glow, amber LCD, LED meter).
#include <gtest/gtest.h>

#include <QTest>

#include "interface/ConsoleSurface.h"
#include "interface/ContentView.h"
#include "interface/GrainOverlay.h"
#include "interface/MasterLevelMeter.h"
#include "interface/RecordButton.h"
#include "interface/TimecodeLCDView.h"
#include "tests/app/QtTestSupport.h"
#include "tests/interface/ViewRig.h"
#include "tests/interface/WidgetImages.h"

namespace bw {
namespace {

using std::chrono::milliseconds;

constexpr double kScale = 2.0;
// Set before the shared main makes the application object.
[[maybe_unused]] const bool kScaled = qputenv("QT_SCALE_FACTOR", "2");

/// The main window's content with the player ticked, its header photographed once its grain
/// has arrived.
struct Console {
    test::ViewRig rig;
    ContentView view{*rig.state, rig.icons, rig.tracker, rig.timer, &rig.consoleClock};
    ConsoleSurface* header = view.header();
    RecordButton* button = view.recordButton();

    Console() {
        rig.listSome();
        rig.state->markOnboardingCompleted();
        rig.tick({"app:org.example.Player"});
        view.resize(640, 560);
    }

    QImage shoot(const char* name) {
        rig.consoleClock.advance(milliseconds(800));
        view.show();
        header->grab();
        EXPECT_TRUE(QTest::qWaitFor([&] { return header->grain().texture().has_value(); }, 5000));
        const QImage picture = header->grab().toImage();
        EXPECT_TRUE(test::matchesScreenshot(picture, QString::fromLatin1(name)));
        return picture;
    }
};

TEST(ConsoleScreenshotsTest, IdleHeaderIsADarkGrainedPanelWithADimLcdAndAReadyKey) {
    Console c;
    const QImage image = c.shoot("console-idle.png");
    EXPECT_EQ(image.size(), c.header->size() * kScale);
    // The grain is made for the device pixels.
    EXPECT_TRUE(c.header->grain().currentKey().endsWith("@2.0"));
    EXPECT_EQ(c.header->grain().texture()->size(), c.header->size() * kScale);
}

TEST(ConsoleScreenshotsTest, RecordingHeaderGlowsRedAndAmber) {
    Console c;
    c.button->click();
    ASSERT_TRUE(test::pumpUntil([&] { return c.rig.state->isRecording(); }));
    // A held peak above the level, and a clip.
    for (const float level : {0.5f, 0.99f, 0.93f, 0.71f}) {
        c.rig.tracker.update({{"master", level}});
    }
    c.shoot("console-recording.png");
    ASSERT_GT(c.view.masterMeter()->peak(), c.view.masterMeter()->level());
    c.button->click();
    EXPECT_TRUE(test::pumpUntil([&] { return !c.rig.state->isBusy(); }));
}

}  // namespace
}  // namespace bw
