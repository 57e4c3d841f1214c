// Paints the console's widgets on the panel at scale 2 and checks that they read as a studio
// console: dark grained panel, red key with its glow, amber LCD, LED meter. With
// BW_SCREENSHOT_DIR set, the pictures are also saved there as PNGs.
#include <gtest/gtest.h>

#include <QApplication>
#include <QDir>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QTest>
#include <QVBoxLayout>

#include "interface/ArmIndicator.h"
#include "interface/ChannelFader.h"
#include "interface/ConsoleSurface.h"
#include "interface/GrainOverlay.h"
#include "interface/LevelMeterView.h"
#include "interface/ManualConsoleClock.h"
#include "interface/MasterLevelMeter.h"
#include "interface/RecordButton.h"
#include "interface/SegmentedMeter.h"
#include "interface/SymbolImages.h"
#include "interface/Theme.h"
#include "interface/TimecodeLCDView.h"
#include "tests/interface/WidgetImages.h"

namespace bw {
namespace {

using std::chrono::milliseconds;

constexpr double kScale = 2.0;

// Grabs `window` once the grain of its panel (if any) has arrived; saves it when asked to.
QImage shoot(QWidget& window, const char* name) {
    window.show();
    window.grab();
    if (auto* surface = qobject_cast<ConsoleSurface*>(&window)) {
        EXPECT_TRUE(QTest::qWaitFor([&] { return surface->grain().texture().has_value(); }, 5000));
    }
    const QImage picture = window.grab().toImage();
    EXPECT_TRUE(test::saveScreenshot(picture, QString::fromLatin1(name)));
    return picture;
}

// Colour at a point given in device-independent pixels.
QColor at(const QImage& image, QPointF point) {
    return image.pixelColor((point * kScale).toPoint());
}

QColor at(const QImage& image, QWidget& widget, QPointF local) {
    return at(image, widget.mapTo(widget.window(), local));
}

bool isAmber(const QColor& c) {
    return c.red() > 200 && c.green() > 130 && c.green() < 200 && c.blue() < 110;
}

bool isPanel(const QColor& c) {
    return c.lightness() < 60 && c.red() >= c.blue();
}

ConsoleSurface* makeSurface(QSize size) {
    auto* surface = new ConsoleSurface;
    surface->setPalette(Theme::consolePalette());
    surface->resize(size);
    return surface;
}

QLabel* statusLabel(const QString& text, const QColor& color) {
    auto* label = new QLabel(text);
    label->setFont(Theme::statusFont(false));
    QPalette palette = label->palette();
    palette.setColor(QPalette::WindowText, color);
    label->setPalette(palette);
    return label;
}

struct Header {
    ManualConsoleClock clock;
    std::unique_ptr<ConsoleSurface> surface{makeSurface(QSize(560, 132))};
    RecordButton* button = new RecordButton;
    TimecodeLCDView* lcd = new TimecodeLCDView;
    MasterLevelMeter* meter = new MasterLevelMeter;
    QLabel* status;

    Header(bool recording) {
        status = recording ? statusLabel("Recording", Theme::signalRed())
                           : statusLabel("Ready · 2 sources armed",
                                         Theme::secondary(Theme::consolePalette()));
        button->setClock(&clock);
        lcd->setClock(&clock);
        meter->setClock(&clock);
        // A sample of the header's arrangement: the widgets are their controls' own sizes.
        auto* column = new QVBoxLayout(surface.get());
        column->setContentsMargins(18, 14, 18, 14);
        column->setSpacing(12);
        auto* transport = new QHBoxLayout;
        transport->setSpacing(18);
        transport->addWidget(button);
        auto* readout = new QVBoxLayout;
        readout->setSpacing(1);
        readout->addStretch();
        readout->addWidget(lcd);
        readout->addWidget(status);
        readout->addStretch();
        transport->addLayout(readout);
        transport->addStretch();
        column->addLayout(transport);
        column->addWidget(meter);

        button->setKeyEnabled(true);
        if (recording) {
            button->setRecording(true);
            lcd->setRecording(true);
            lcd->setFormattedElapsed("0:12:34");
            lcd->setCompactElapsed("12:34");
            for (const float level : {0.5f, 0.99f, 0.93f, 0.71f}) {
                meter->setLevel(level);
                button->setLevel(level);
            }
        }
        clock.advance(milliseconds(800));
    }
};

TEST(ConsoleScreenshotsTest, IdleHeaderIsADarkPanelWithADimLcdAndAReadyKey) {
    Header header(false);
    const QImage image = shoot(*header.surface, "console-idle.png");
    EXPECT_EQ(image.size(), header.surface->size() * kScale);
    EXPECT_TRUE(isPanel(at(image, {540, 20})));
    const QRectF key = header.button->keyRect();
    const QColor body = at(image, *header.button, key.center() + QPointF(0, 24));
    EXPECT_GT(body.red(), 180);
    EXPECT_LT(body.green(), 90);
    // The ready ring is white on the key.
    EXPECT_GT(at(image, *header.button, key.center() + QPointF(0, -16.25)).lightness(), 200);
    // The empty meter's segments are faint on the panel.
    const QRectF bar = header.meter->barRect();
    EXPECT_TRUE(isPanel(at(image, *header.meter, bar.topLeft() + QPointF(2.5, 5))));
}

TEST(ConsoleScreenshotsTest, RecordingHeaderGlowsRedAndAmber) {
    Header header(true);
    const QImage image = shoot(*header.surface, "console-recording.png");
    const QRectF key = header.button->keyRect();
    // The stop square is white; the glow lights the panel beside the key red.
    EXPECT_GT(at(image, *header.button, key.center()).lightness(), 220);
    const QColor glow = at(image, *header.button, QPointF(key.left() - 6, key.center().y()));
    EXPECT_GT(glow.red(), glow.green() + 30);
    // Lit amber digits somewhere on the LCD's line.
    bool amber = false;
    const QRect line = header.lcd->contentsRect();
    for (int x = line.left(); x < line.right() && !amber; ++x) {
        for (int y = line.top(); y < line.bottom() && !amber; ++y) {
            amber = isAmber(at(image, *header.lcd, QPointF(x + 0.25, y + 0.25)));
        }
    }
    EXPECT_TRUE(amber);
    // The meter: green at its start, the clip lamp red.
    SegmentedMeter* meter = header.meter;
    const QColor first = at(image, *meter, meter->barRect().topLeft() + QPointF(2.5, 5));
    EXPECT_GT(first.green(), first.red());
    const QColor lamp = at(image, *meter, meter->lampRect().center());
    EXPECT_GT(lamp.red(), 200);
    EXPECT_LT(lamp.green(), 100);
}

TEST(ConsoleScreenshotsTest, WidgetSheetsShowEveryState) {
    ManualConsoleClock clock;

    // Meters at rising levels, the loudest clipping.
    {
        std::unique_ptr<ConsoleSurface> surface(makeSurface(QSize(420, 110)));
        auto* grid = new QVBoxLayout(surface.get());
        grid->setContentsMargins(16, 12, 16, 12);
        std::vector<SegmentedMeter*> meters;
        for (const float level : {0.0f, 0.35f, 0.7f, 1.0f}) {
            auto* meter = new SegmentedMeter;
            meter->setClock(&clock);
            meter->setLevel(std::min(level + 0.2f, 1.0f));
            meter->setLevel(level);
            grid->addWidget(meter);
            meters.push_back(meter);
        }
        auto* thin = new LevelMeterView;
        thin->setLevel(0.6f);
        grid->addWidget(thin);
        const QImage image = shoot(*surface, "meter.png");
        EXPECT_TRUE(meters[3]->isClipped());
        EXPECT_FALSE(meters[2]->isClipped());
        EXPECT_GT(meters[1]->peak(), meters[1]->level());  // the held peak above the bar
    }

    // The record key: ready, dim (nothing ticked), recording quiet and loud.
    {
        std::unique_ptr<ConsoleSurface> surface(makeSurface(QSize(520, 160)));
        auto* row = new QHBoxLayout(surface.get());
        row->setSpacing(60);
        row->setContentsMargins(50, 30, 50, 30);
        struct State {
            bool recording;
            bool enabled;
            float level;
        };
        std::vector<RecordButton*> buttons;
        for (const auto& s : std::vector<State>{
                 {false, true, 0}, {false, false, 0}, {true, true, 0.1f}, {true, true, 1.0f}}) {
            auto* button = new RecordButton;
            button->setClock(&clock);
            button->setKeyEnabled(s.enabled);
            button->setRecording(s.recording);
            button->setLevel(s.level);
            row->addWidget(button);
            buttons.push_back(button);
        }
        clock.advance(milliseconds(700));
        const QImage image = shoot(*surface, "record-button.png");
        // Red light on the panel at a distance left of a key.
        const auto glowBeside = [&](RecordButton* b, double distance) {
            const QRectF key = b->keyRect();
            return at(image, *b, QPointF(key.left() - distance, key.center().y())).red();
        };
        EXPECT_GT(glowBeside(buttons[0], 6), glowBeside(buttons[1], 6) + 5);
        EXPECT_GT(glowBeside(buttons[3], 36), glowBeside(buttons[2], 36) + 5);
    }

    // Faders: on the console panel and in a light list, at several volumes and levels.
    for (const bool dark : {true, false}) {
        std::unique_ptr<QWidget> host;
        if (dark) {
            host.reset(makeSurface(QSize(300, 150)));
        } else {
            host = std::make_unique<QWidget>();
            host->setAutoFillBackground(true);
            QPalette palette;
            palette.setColor(QPalette::Window, QColor(246, 245, 243));
            palette.setColor(QPalette::WindowText, QColor(28, 28, 30));
            host->setPalette(palette);
            host->resize(300, 150);
        }
        auto* grid = new QGridLayout(host.get());
        grid->setContentsMargins(16, 8, 16, 8);
        struct Fader {
            float value;
            float level;
            bool enabled;
        };
        int row = 0;
        for (const auto& f : std::vector<Fader>{{1.0f, 0.55f, true},
                                                {0.4f, 0.2f, true},
                                                {1.5f, 1.2f, true},
                                                {0.8f, 0.4f, false}}) {
            auto* lamp = new ArmIndicator;
            lamp->setClock(&clock);
            lamp->setArmed(row != 3);
            lamp->setRecording(row == 2);
            auto* fader = new ChannelFader;
            fader->setClock(&clock);
            fader->setValue(f.value);
            fader->setLevel(f.level);
            fader->setEnabled(f.enabled);
            auto* percent = new QLabel(QString::number(std::lround(f.value * 100)) + "%");
            percent->setFont(Theme::percentageFont());
            grid->addWidget(lamp, row, 0);
            grid->addWidget(fader, row, 1);
            grid->addWidget(percent, row, 2, Qt::AlignRight);
            ++row;
        }
        clock.advance(milliseconds(1500));
        shoot(*host, dark ? "fader.png" : "fader-light.png");
    }

    // The LCD unlit and lit.
    {
        std::unique_ptr<ConsoleSurface> surface(makeSurface(QSize(220, 120)));
        auto* column = new QVBoxLayout(surface.get());
        auto* unlit = new TimecodeLCDView;
        auto* lit = new TimecodeLCDView;
        for (auto* lcd : {unlit, lit}) {
            lcd->setClock(&clock);
            column->addWidget(lcd);
        }
        lit->setRecording(true);
        lit->setFormattedElapsed("1:02:05");
        clock.advance(milliseconds(500));
        shoot(*surface, "timecode.png");
    }

    // Every symbol, in amber on the panel.
    {
        const QStringList names = SymbolImages::names();
        std::unique_ptr<ConsoleSurface> surface(makeSurface(QSize(8 * 44 + 16, 2 * 44 + 16)));
        auto* grid = new QGridLayout(surface.get());
        grid->setContentsMargins(8, 8, 8, 8);
        for (int i = 0; i < names.size(); ++i) {
            auto* label = new QLabel;
            label->setPixmap(SymbolImages::pixmap(names[i], QSize(32, 32),
                                                  i % 2 ? Theme::consoleAmber() : QColor(Qt::white),
                                                  kScale));
            label->setToolTip(names[i]);
            grid->addWidget(label, i / 8, i % 8, Qt::AlignCenter);
        }
        shoot(*surface, "symbols.png");
    }

    // The bare panel, and a close-up of its grain.
    {
        std::unique_ptr<ConsoleSurface> surface(makeSurface(QSize(320, 120)));
        const QImage image = shoot(*surface, "panel.png");
        const QImage closeUp = image.copy(40, 40, 80, 60)
                                   .scaled(480, 360, Qt::IgnoreAspectRatio, Qt::FastTransformation);
        EXPECT_TRUE(test::saveScreenshot(closeUp, QStringLiteral("panel-grain-zoom.png")));
        EXPECT_EQ(surface->grain().currentKey(), QString("320.0x120.0@2.0"));
        EXPECT_EQ(surface->grain().texture()->size(), QSize(640, 240));
    }
}

}  // namespace
}  // namespace bw

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    qputenv("QT_SCALE_FACTOR", "2");
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
