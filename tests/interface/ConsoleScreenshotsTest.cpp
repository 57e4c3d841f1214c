// Paints the main window's console header at scale 2, idle and recording, and the console's
// small widgets in each of their looks, and compares them with the reviewed pictures.
#include <gtest/gtest.h>

#include <QPainter>
#include <QTest>

#include "interface/ArmIndicator.h"
#include "interface/ChannelFader.h"
#include "interface/ConsoleSurface.h"
#include "interface/ContentView.h"
#include "interface/GrainOverlay.h"
#include "interface/LevelMeterView.h"
#include "interface/ManualConsoleClock.h"
#include "interface/MasterLevelMeter.h"
#include "interface/RecordButton.h"
#include "interface/SegmentedMeter.h"
#include "interface/SymbolImages.h"
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

/// Rows of pictures, each row left to right and the rows top to bottom, 8 pixels apart on a
/// transparent sheet: one comparison for a widget's every look.
QImage sheet(const std::vector<std::vector<QImage>>& rows) {
    QSize size(0, 0);
    for (const auto& row : rows) {
        int width = 0;
        int height = 0;
        for (const QImage& picture : row) {
            width += picture.width() + 8;
            height = std::max(height, picture.height());
        }
        size = QSize(std::max(size.width(), width), size.height() + height + 8);
    }
    QImage result(size, QImage::Format_ARGB32);
    result.fill(Qt::transparent);
    QPainter painter(&result);
    QPoint at(0, 0);
    for (const auto& row : rows) {
        int height = 0;
        for (const QImage& picture : row) {
            painter.drawImage(QRect(at, picture.size()), picture);  // device pixels
            at.rx() += picture.width() + 8;
            height = std::max(height, picture.height());
        }
        at = QPoint(0, at.y() + height + 8);
    }
    return result;
}

TEST(ConsoleScreenshotsTest, RecordKeyGlowsByReadinessAndLevelAndRingsWhileRecording) {
    // Dim, ready, recording quietly, recording loud (the glow alone), and a recording's ring
    // a quarter into its swing, each with room for all its light.
    struct Look {
        bool enabled;
        bool recording;
        float level;
        bool reduceMotion;
    };
    const std::vector<Look> looks = {{false, false, 0, true},
                                     {true, false, 0, true},
                                     {true, true, 0, true},
                                     {true, true, 1, true},
                                     {true, true, 0, false}};
    ManualConsoleClock clock;
    std::vector<std::unique_ptr<test::Host>> hosts;
    for (const Look& look : looks) {
        hosts.push_back(std::make_unique<test::Host>(90));
        RecordButton* button = hosts.back()->hold(new RecordButton);
        button->setClock(&clock);
        button->setReduceMotion(look.reduceMotion);
        button->setKeyEnabled(look.enabled);
        button->setRecording(look.recording);
        button->setLevel(look.level);
    }
    clock.advance(milliseconds(3375));  // the glyphs have settled
    std::vector<QImage> row;
    for (const auto& host : hosts) {
        row.push_back(host->painted());
    }
    EXPECT_TRUE(test::matchesScreenshot(sheet({row}), "record-key.png"));
}

TEST(ConsoleScreenshotsTest, LampsFadersAndMetersInEachOfTheirLooks) {
    ManualConsoleClock clock;
    // Lamps: unarmed, unarmed while recording, armed, armed while recording.
    std::vector<QImage> lamps;
    for (const auto& [armed, recording] :
         {std::pair{false, false}, {false, true}, {true, false}, {true, true}}) {
        ArmIndicator lamp;
        lamp.setClock(&clock);
        lamp.setRecording(recording);
        lamp.setArmed(armed);
        clock.advance(milliseconds(2000));
        lamps.push_back(test::paintedAlone(lamp));
    }
    // Faders: a level past the unity mark, and a disabled one at half.
    std::vector<QImage> faders;
    for (const auto& [value, level, enabled] :
         {std::tuple{0.3f, 1.4f, true}, {0.5f, 0.0f, false}}) {
        ChannelFader fader;
        fader.setClock(&clock);
        fader.resize(fader.sizeHint());
        fader.setValue(value);
        fader.setLevel(level);
        fader.setEnabled(enabled);
        faders.push_back(test::paintedAlone(fader));
    }
    LevelMeterView bar;
    bar.resize(200, LevelMeterView::barHeight);
    bar.setLevel(0.5f);
    // LED meters of 21 segments: dark, full (green, amber, red), a peak held above the level.
    std::vector<QImage> meters;
    for (const auto& [level, peak] : {std::pair{0.0f, 0.0f}, {1.0f, 0.0f}, {0.1f, 0.5f}}) {
        test::Host host(20);
        SegmentedMeter* meter = host.hold(new SegmentedMeter);
        meter->setClock(&clock);
        meter->resize(21 * 8 - 3, meter->height());
        host.surface.resize(meter->size() + QSize(40, 40));
        meter->setLevel(peak);
        meter->setLevel(level);
        meters.push_back(host.painted());
    }
    // The timecode halfway through a roll from 0:00:00 to 0:00:01: only the last digit moves.
    TimecodeLCDView lcd;
    lcd.setClock(&clock);
    lcd.resize(lcd.sizeHint());
    lcd.show();
    EXPECT_TRUE(QTest::qWaitForWindowExposed(&lcd));
    lcd.setFormattedElapsed("0:00:01");
    clock.advance(milliseconds(150));
    EXPECT_TRUE(test::matchesScreenshot(
        sheet({lamps, faders, {test::paintedAlone(bar), test::paintedAlone(lcd)}, meters}),
        "console-widgets.png"));
}

// Every symbol in a 96-point box, then one drawn into a wide box (square, centred, in its
// colour), one as a pixmap at scale 2, and one through its icon.
TEST(ConsoleScreenshotsTest, EverySymbolHasItsDrawing) {
    const auto canvas = [](QSize size) {
        QImage image(size, QImage::Format_ARGB32);
        image.fill(Qt::transparent);
        return image;
    };
    std::vector<std::vector<QImage>> rows(4);
    const QStringList names = SymbolImages::names();
    for (int i = 0; i < names.size(); ++i) {
        QImage image = canvas({96, 96});
        QPainter painter(&image);
        EXPECT_TRUE(SymbolImages::draw(painter, names[i], QRectF(0, 0, 96, 96), Qt::black));
        EXPECT_TRUE(SymbolImages::contains(names[i]));
        rows[i * 3 / names.size()].push_back(image);
    }
    QImage wide = canvas({192, 96});
    QPainter painter(&wide);
    EXPECT_TRUE(SymbolImages::draw(painter, "stop.fill", QRectF(0, 0, 192, 96), Qt::red));
    EXPECT_FALSE(SymbolImages::draw(painter, "no.such.symbol", QRectF(0, 0, 192, 96), Qt::red));
    EXPECT_FALSE(SymbolImages::contains("no.such.symbol"));
    EXPECT_TRUE(SymbolImages::path("no.such.symbol").isEmpty());
    painter.end();
    const QPixmap pixmap = SymbolImages::pixmap("headphones", QSize(48, 48), Qt::black, 2.0);
    EXPECT_EQ(pixmap.deviceIndependentSize(), QSizeF(48, 48));
    rows[3] = {wide, pixmap.toImage(),
               SymbolImages::icon("folder", Qt::blue).pixmap(QSize(96, 96), 1.0).toImage()};
    EXPECT_TRUE(test::matchesScreenshot(sheet(rows), "symbols.png"));
}

}  // namespace
}  // namespace bw
