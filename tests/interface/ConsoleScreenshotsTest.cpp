// Paints the main window's console header at scale 2 and checks that it reads as a studio
// console: dark grained panel, red key with its glow, amber LCD, LED meter. With
// BW_SCREENSHOT_DIR set, the pictures are also saved there as PNGs.
#include <gtest/gtest.h>

#include <QTest>

#include "interface/ConsoleSurface.h"
#include "interface/ContentView.h"
#include "interface/GrainOverlay.h"
#include "interface/MasterLevelMeter.h"
#include "interface/RecordButton.h"
#include "interface/Theme.h"
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

bool isAmber(const QColor& c) {
    return c.red() > 200 && c.green() > 130 && c.green() < 200 && c.blue() < 110;
}

bool isPanel(const QColor& c) {
    return c.lightness() < 60 && c.red() >= c.blue();
}

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

    /// Colour at a point of `widget`, in its device-independent pixels.
    QColor at(const QImage& image, const QWidget& widget, QPointF local) const {
        return image.pixelColor(
            ((QPointF(widget.mapTo(header, QPoint())) + local) * kScale).toPoint());
    }
};

TEST(ConsoleScreenshotsTest, IdleHeaderIsADarkGrainedPanelWithADimLcdAndAReadyKey) {
    Console c;
    const QImage image = c.shoot("console-idle.png");
    EXPECT_EQ(image.size(), c.header->size() * kScale);
    // The grain is made for the device pixels.
    EXPECT_TRUE(c.header->grain().currentKey().endsWith("@2.0"));
    EXPECT_EQ(c.header->grain().texture()->size(), c.header->size() * kScale);
    EXPECT_TRUE(isPanel(c.at(image, *c.header, {300, 6})));
    const QRectF key = c.button->keyRect();
    const QColor body = c.at(image, *c.button, key.center() + QPointF(0, 24));
    EXPECT_GT(body.red(), 180);
    EXPECT_LT(body.green(), 90);
    // The ready ring is white on the key, around a red centre.
    EXPECT_GT(c.at(image, *c.button, key.center() + QPointF(0, -16.25)).lightness(), 200);
    EXPECT_GT(c.at(image, *c.button, key.center()).red(), 180);
    EXPECT_LT(c.at(image, *c.button, key.center()).green(), 90);
    // The empty meter's segments and its lamp are faint on the panel, the lamp without a glow.
    MasterLevelMeter* meter = c.view.masterMeter();
    EXPECT_TRUE(isPanel(c.at(image, *meter, meter->barRect().topLeft() + QPointF(2.5, 5))));
    const QPointF lamp = meter->lampRect().center();
    EXPECT_TRUE(isPanel(c.at(image, *meter, lamp)));
    EXPECT_LT(c.at(image, *meter, lamp + QPointF(0, -5)).red(),
              c.at(image, *meter, lamp + QPointF(0, -12)).red() + 10);
}

TEST(ConsoleScreenshotsTest, RecordingHeaderGlowsRedAndAmber) {
    Console c;
    c.button->click();
    ASSERT_TRUE(test::pumpUntil([&] { return c.rig.state->isRecording(); }));
    for (const float level : {0.5f, 0.99f, 0.93f, 0.71f}) {
        c.rig.tracker.update({{"master", level}});
    }
    const QImage image = c.shoot("console-recording.png");
    const QRectF key = c.button->keyRect();
    // The stop square is white up to its rounded corner; the glow lights the panel red.
    EXPECT_GT(c.at(image, *c.button, key.center()).lightness(), 220);
    EXPECT_LT(c.at(image, *c.button, key.center() + QPointF(14, 14)).green(), 120);
    const QColor glow = c.at(image, *c.button, QPointF(key.left() - 6, key.center().y()));
    EXPECT_GT(glow.red(), glow.green() + 30);
    // Lit amber digits somewhere on the LCD's line.
    bool amber = false;
    const QRect line = c.view.timecode()->contentsRect();
    for (int x = line.left(); x < line.right() && !amber; ++x) {
        for (int y = line.top(); y < line.bottom() && !amber; ++y) {
            amber = isAmber(c.at(image, *c.view.timecode(), QPointF(x + 0.25, y + 0.25)));
        }
    }
    EXPECT_TRUE(amber);
    // The meter paints each segment its model lights, the held peak too, in its colour; the
    // clip lamp is red and its glow spills onto the panel.
    MasterLevelMeter* meter = c.view.masterMeter();
    const QRectF bar = meter->barRect();
    const auto segments =
        SegmentedMeter::segments(bar.width(), bar.height(), meter->level(), meter->peak());
    const auto allLit = SegmentedMeter::segments(bar.width(), bar.height(), 1.0f, 0.0f);
    ASSERT_FALSE(segments.back().lit);
    ASSERT_GT(meter->peak(), meter->level());
    for (std::size_t i = 0; i < segments.size(); ++i) {
        const QColor shown = c.at(image, *meter, bar.topLeft() + segments[i].rect.center());
        EXPECT_EQ(segments[i].lit, test::nearColor(shown, allLit[i].color, 12)) << i;
    }
    const QPointF lamp = meter->lampRect().center();
    EXPECT_TRUE(test::nearColor(c.at(image, *meter, lamp), Theme::signalRed(), 12));
    EXPECT_GT(c.at(image, *meter, lamp + QPointF(0, -5)).red(),
              c.at(image, *meter, lamp + QPointF(0, -12)).red() + 20);
    c.button->click();
    EXPECT_TRUE(test::pumpUntil([&] { return !c.rig.state->isBusy(); }));
}

}  // namespace
}  // namespace bw
