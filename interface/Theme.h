#pragma once

#include <QColor>
#include <QFont>
#include <QPalette>

#include "interface/Spring.h"

namespace bw {

/// The console's look in one place: its colours, the type styles of the main window's views and
/// the springs of their motion. Every console widget takes its colours from here.
///
/// Fonts and palettes are built from the application's font, so they need a `QGuiApplication`;
/// colours and springs don't. Sizes are device-independent pixels (the console's points).
class Theme {
public:
    Theme() = delete;

    // Colour vocabulary. All opaque sRGB.
    static QColor consoleTop() { return QColor::fromRgbF(0.155f, 0.145f, 0.13f); }
    static QColor consoleBottom() { return QColor::fromRgbF(0.095f, 0.09f, 0.082f); }
    static QColor consoleAmber() { return QColor::fromRgbF(1.0f, 0.694f, 0.239f); }
    static QColor recordTop() { return QColor::fromRgbF(1.0f, 0.38f, 0.32f); }
    static QColor recordBottom() { return QColor::fromRgbF(0.8f, 0.15f, 0.12f); }
    static QColor meterGreen() { return QColor::fromRgbF(0.3f, 0.8f, 0.42f); }
    /// The warning red of clip lamp, record glow and pulse: bright enough to read on
    /// `consoleBottom` without turning pink next to `recordTop`.
    static QColor signalRed() { return QColor::fromRgbF(1.0f, 0.231f, 0.188f); }
    /// The program's accent: a warm orange that sits beside `consoleAmber` on the panel and is
    /// still told apart from `signalRed` on a lit lamp.
    static QColor accent() { return QColor::fromRgbF(0.965f, 0.545f, 0.176f); }

    // The desktop's plain named colours, for washes and message lines.
    static QColor red() { return QColor::fromRgbF(1.0f, 0.271f, 0.227f); }
    static QColor orange() { return QColor::fromRgbF(1.0f, 0.624f, 0.039f); }
    static QColor yellow() { return QColor::fromRgbF(1.0f, 0.839f, 0.039f); }
    static QColor green() { return QColor::fromRgbF(0.196f, 0.843f, 0.294f); }

    /// `color` at `opacity` (0…1) times its own alpha.
    static QColor withOpacity(QColor color, double opacity);
    /// The way from `from` to `to` (alpha included) at `amount`, clamped to 0…1; the ends are
    /// the colours themselves.
    static QColor mixed(const QColor& from, const QColor& to, double amount);

    /// The text colour of `palette`: the "primary" colour of a view.
    static QColor primary(const QPalette& palette);
    /// The quieter text colour of `palette`: primary at about half strength.
    static QColor secondary(const QPalette& palette);

    /// The palette of the console header: dark whatever the desktop's scheme, `consoleAmber`
    /// as highlight and link colour.
    static QPalette consolePalette();

    // Type styles.
    /// Timecode digits: size 32, medium weight, monospaced.
    static QFont timecodeFont();
    /// Status line under the timecode: caption, medium (bold while the hint shows), tracking
    /// 1.4, upper case.
    static QFont statusFont(bool bold);
    /// Section headers of the source list: caption, semibold, tracking 1.3, upper case.
    static QFont sectionHeaderFont();
    /// Caption under the record key: caption, semibold.
    static QFont recordCaptionFont();
    /// Message rows: callout.
    static QFont messageFont();
    /// Volume percentage of a row: caption with digits of equal width.
    static QFont percentageFont();
    /// Speaker badge of a row: caption2.
    static QFont badgeFont();

    // The text styles of the windows around the console: walkthrough, help, settings, About.
    /// Large title, 26: the heading of a walkthrough step.
    static QFont largeTitleFont(QFont::Weight weight = QFont::Normal);
    /// Second title, 17.
    static QFont title2Font(QFont::Weight weight = QFont::Normal);
    /// Third title, 15: body texts of the walkthrough, the help's heading.
    static QFont title3Font(QFont::Weight weight = QFont::Normal);
    /// Headline, 13 semibold: titles of numbered rows and questions.
    static QFont headlineFont();
    /// Body, 13.
    static QFont bodyFont();
    /// Callout, 12.
    static QFont calloutFont();
    /// Caption, 10.
    static QFont captionFont();

    // Motion vocabulary.
    /// The knob's snap into the unity detent.
    static Spring detentSnap() { return {0.15, 0.8, 0.25}; }
    /// The record key's glyph cross-fade between ring and square.
    static Spring recordGlyph() { return {0.35, 0.62, 0.0}; }
    /// The record key's press scale.
    static Spring recordPress() { return {0.25, 0.6, 0.0}; }
    /// A source lamp coming on or going out.
    static Spring armLamp() { return {0.3, 0.6, 0.0}; }
    /// Ticking a source row.
    static Spring sourceToggle() { return {0.3, 0.7, 0.0}; }
    /// The toolkit's default animation (used by the fader's stepped accessibility actions).
    static Spring defaultAnimation() { return {0.55, 1.0, 0.0}; }

    /// One swing of the record key's pulse ring, seconds (ease-out, repeated).
    static constexpr double pulsePeriod = 1.5;
    /// How long a changed timecode digit takes to roll, seconds.
    static constexpr double digitRollDuration = 0.3;
    /// Hover fade of a source row, seconds (ease-out).
    static constexpr double hoverFade = 0.12;

    /// The ease-out timing curve (cubic Bézier 0, 0, 0.58, 1) at `t` in 0…1.
    static double easeOut(double t);
};

}  // namespace bw
