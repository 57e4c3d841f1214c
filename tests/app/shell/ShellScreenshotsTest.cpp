// Pictures of the tray panel and the program icon, checked where a fault would show; with
// BW_SCREENSHOT_DIR set they are also saved there (scripts/screenshots).
#include <gtest/gtest.h>

#include <QApplication>
#include <QDir>
#include <QPushButton>

#include <QLabel>
#include "app/shell/ApplicationIcon.h"
#include "app/shell/MenuBarLabelView.h"
#include "app/shell/MenuBarLevelMeter.h"
#include "app/shell/RecordingMenuBarView.h"
#include "interface/LevelMeterView.h"
#include "interface/Theme.h"
#include "tests/app/shell/ShellRig.h"
#include "tests/interface/QtUnderThreadSanitizer.h"
#include "tests/support/PrivateSessionBus.h"
#include "tests/interface/WidgetImages.h"

namespace bw::test {
namespace {

using namespace std::chrono_literals;

QImage save(const QImage& picture, const char* name) {
    EXPECT_TRUE(saveScreenshot(picture, QString::fromLatin1(name)));
    return picture;
}

bool isReddish(const QColor& color) {
    return color.red() > 180 && color.green() < 120 && color.blue() < 120;
}

TEST(ShellScreenshotsTest, TheTrayPanelShowsTheLampTheTimeAndTheMixDuringARecording) {
    ShellRig rig;
    rig.launch();
    rig.startRecordingPlayer();
    ASSERT_TRUE(pumpUntil([&] { return rig.trayShown(); }));
    rig.clock->advance(83s);
    rig.app->menuBarExtra()->openPanel({20, 20});
    RecordingMenuBarView* panel = rig.app->menuBarExtra()->panel();
    ASSERT_NE(panel, nullptr);
    rig.tracker.update({{"master", 0.55f}});
    const QImage picture = save(panel->grab().toImage(), "tray-panel.png");

    EXPECT_EQ(panel->timeLabel()->text(), QStringLiteral("01:23"));
    // The lamp sits first in the header, inside the 14-point margin.
    const double scale = picture.devicePixelRatio();
    const QPoint lamp = (QPointF(RecordingMenuBarView::kMargin + 4.5, 0) * scale).toPoint();
    bool lampLit = false;
    for (int y = 0; y < picture.height() / 2; ++y) {
        lampLit = lampLit || isReddish(picture.pixelColor(lamp.x(), y));
    }
    EXPECT_TRUE(lampLit) << "no red lamp in the header";
    // The stop button is filled red; the mix's bar is lit a little over half its length.
    const QRect stop = panel->stopButton()->geometry();
    const QPoint insideTheEdge = QPoint(stop.left() + 4, stop.center().y()) * scale;
    EXPECT_TRUE(isReddish(picture.pixelColor(insideTheEdge)));
    EXPECT_NEAR(panel->levelMeter()->meter()->litWidth(),
                0.55 * panel->levelMeter()->meter()->width(), 1.0);
}

TEST(ShellScreenshotsTest, TheProgramIconIsTheSameDrawingAtEverySize) {
    const QImage large = save(ApplicationIcon::image(256), "app-icon.png");
    EXPECT_EQ(large.pixelColor(0, 0).alpha(), 0) << "corners are transparent";
    EXPECT_TRUE(isReddish(large.pixelColor(128, 112))) << "the record key in the middle";
    const QImage small = ApplicationIcon::image(32).scaled(256, 256);
    EXPECT_TRUE(isReddish(small.pixelColor(128, 112)));
}

}  // namespace
}  // namespace bw::test

int main(int argc, char** argv) {
    bw::test::PrivateSessionBus bus;
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
