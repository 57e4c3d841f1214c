// Pictures of the tray item as a host draws it, its panel, the window minimised where no tray
// shows, and the program icon, compared with the reviewed ones (scripts/screenshots makes them).
#include <gtest/gtest.h>

#include <QDir>
#include <QPainter>
#include <QPushButton>

#include <QLabel>
#include "interface/ContentView.h"
#include "interface/LevelMeterView.h"
#include "interface/Theme.h"
#include "shell/ApplicationIcon.h"
#include "shell/MenuBarLabelView.h"
#include "shell/MenuBarLevelMeter.h"
#include "shell/RecordingMenuBarView.h"
#include "tests/interface/WidgetImages.h"
#include "tests/shell/ShellRig.h"

namespace bw::test {
namespace {

using namespace std::chrono_literals;

QImage save(const QImage& picture, const char* name) {
    EXPECT_TRUE(matchesScreenshot(picture, QString::fromLatin1(name)));
    return picture;
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
    save(panel->grab().toImage(), "tray-panel.png");
    EXPECT_EQ(panel->timeLabel()->text(), QStringLiteral("01:23"));
    EXPECT_NEAR(panel->levelMeter()->meter()->litWidth(),
                0.55 * panel->levelMeter()->meter()->width(), 1.0);
}

/// A panel's strip as a host draws a tray item from what it reads over the bus: the icon (the
/// pixmap, as a host without the theme's icon does) and the Ayatana label beside it.
QImage drawnByHost(const FakeTrayHost& host) {
    QImage strip(180, 28, QImage::Format_ARGB32);
    strip.fill(QColor(0x24, 0x24, 0x26));
    QPainter painter(&strip);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    painter.drawImage(QRect(10, 5, 18, 18), host.iconImage());
    QFont font = painter.font();
    font.setPixelSize(13);
    font.setBold(true);
    painter.setFont(font);
    painter.setPen(QColor(0xf2, 0xf2, 0xf2));
    painter.drawText(QRect(34, 0, 140, 28), Qt::AlignVCenter | Qt::AlignLeft,
                     host.property(QStringLiteral("XAyatanaLabel")).toString());
    return strip;
}

TEST(ShellScreenshotsTest, ATrayHostDrawsTheItemWithTheTimeBesideIt) {
    ShellRig rig;
    rig.launch();
    rig.startRecordingPlayer();
    ASSERT_TRUE(pumpUntil([&] { return rig.trayHost->items().size() == 1; }));
    rig.clock->advance(83s);
    ASSERT_TRUE(pumpUntil([&] { return rig.trayHost->announcedLabel() == "01:23"; }));
    save(drawnByHost(*rig.trayHost), "tray-item.png");
}

TEST(ShellScreenshotsTest, WithoutATrayTheWindowSaysWhyItWasMinimised) {
    ShellRig rig(false, false);
    rig.launch();
    rig.startRecordingPlayer();
    ASSERT_TRUE(pumpUntil([&] { return rig.state->isRecording(); }));
    rig.clock->advance(42s);
    rig.main()->close();
    ASSERT_NE(rig.main(), nullptr);
    rig.tracker.update({{"master", 0.5f}, {"app:org.example.Player", 0.6f}});
    rig.consoleClock.advance(2s);  // the tick's motion has settled
    pumpFor(20);
    save(rig.main()->grab().toImage(), "main-window-minimised.png");
    EXPECT_EQ(rig.main()->contentView()->statusLabel()->text(),
              QStringLiteral("Recording · minimised: no system tray here"));
}

TEST(ShellScreenshotsTest, TheProgramIconIsTheSameDrawingAtEverySize) {
    save(ApplicationIcon::image(256), "app-icon.png");
    save(ApplicationIcon::image(32), "app-icon-32.png");
}

}  // namespace
}  // namespace bw::test
