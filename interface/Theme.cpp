#include "interface/Theme.h"

#include <QFontDatabase>
#include <QGuiApplication>
#include <algorithm>
#include <cmath>

namespace bw {

namespace {

// Caption, caption2 and callout of the desktop the look was drawn for, in pixels.
constexpr int kCaptionSize = 10;
constexpr int kCaption2Size = 10;
constexpr int kCalloutSize = 12;
constexpr int kBodySize = 13;
constexpr int kTitle3Size = 15;
constexpr int kTitle2Size = 17;
constexpr int kLargeTitleSize = 26;

QFont sized(QFont font, int pixels, QFont::Weight weight) {
    font.setPixelSize(pixels);
    font.setWeight(weight);
    return font;
}

QFont baseFont() {
    return QGuiApplication::font();
}

}  // namespace

QColor Theme::withOpacity(QColor color, double opacity) {
    color.setAlphaF(static_cast<float>(std::clamp(color.alphaF() * opacity, 0.0, 1.0)));
    return color;
}

QColor Theme::mixed(const QColor& from, const QColor& to, double amount) {
    if (amount <= 0.0) {
        return from;
    }
    if (amount >= 1.0) {
        return to;
    }
    const auto mix = [amount](float a, float b) { return float(a + (b - a) * amount); };
    return QColor::fromRgbF(mix(from.redF(), to.redF()), mix(from.greenF(), to.greenF()),
                            mix(from.blueF(), to.blueF()), mix(from.alphaF(), to.alphaF()));
}

QColor Theme::primary(const QPalette& palette) {
    return palette.color(QPalette::WindowText);
}

QColor Theme::secondary(const QPalette& palette) {
    return withOpacity(palette.color(QPalette::WindowText), 0.55);
}

QPalette Theme::consolePalette() {
    QPalette palette;
    const QColor text = QColor::fromRgbF(0.93f, 0.91f, 0.87f);
    palette.setColor(QPalette::Window, consoleBottom());
    palette.setColor(QPalette::Base, consoleBottom().darker(130));
    palette.setColor(QPalette::AlternateBase, consoleTop());
    palette.setColor(QPalette::Button, consoleTop().lighter(130));
    palette.setColor(QPalette::WindowText, text);
    palette.setColor(QPalette::Text, text);
    palette.setColor(QPalette::ButtonText, text);
    palette.setColor(QPalette::BrightText, Qt::white);
    palette.setColor(QPalette::PlaceholderText, withOpacity(text, 0.45));
    palette.setColor(QPalette::ToolTipBase, consoleTop());
    palette.setColor(QPalette::ToolTipText, text);
    palette.setColor(QPalette::Highlight, consoleAmber());
    palette.setColor(QPalette::HighlightedText, Qt::black);
    palette.setColor(QPalette::Link, consoleAmber());
    palette.setColor(QPalette::Disabled, QPalette::WindowText, withOpacity(text, 0.35));
    palette.setColor(QPalette::Disabled, QPalette::Text, withOpacity(text, 0.35));
    palette.setColor(QPalette::Disabled, QPalette::ButtonText, withOpacity(text, 0.35));
    return palette;
}

QFont Theme::timecodeFont() {
    QFont font = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    font.setStyleHint(QFont::Monospace);
    return sized(font, 32, QFont::Medium);
}

QFont Theme::statusFont(bool bold) {
    QFont font = sized(baseFont(), kCaptionSize, bold ? QFont::Bold : QFont::Medium);
    font.setLetterSpacing(QFont::AbsoluteSpacing, 1.4);
    font.setCapitalization(QFont::AllUppercase);
    return font;
}

QFont Theme::sectionHeaderFont() {
    QFont font = sized(baseFont(), kCaptionSize, QFont::DemiBold);
    font.setLetterSpacing(QFont::AbsoluteSpacing, 1.3);
    font.setCapitalization(QFont::AllUppercase);
    return font;
}

QFont Theme::recordCaptionFont() {
    return sized(baseFont(), kCaptionSize, QFont::DemiBold);
}

QFont Theme::messageFont() {
    return sized(baseFont(), kCalloutSize, QFont::Normal);
}

QFont Theme::percentageFont() {
    // Qt 6.4 can't ask for tabular figures; the desktop's sans fonts draw digits of one width
    // already, which is what keeps the percentage from jittering during a drag.
    return sized(baseFont(), kCaptionSize, QFont::Normal);
}

QFont Theme::badgeFont() {
    return sized(baseFont(), kCaption2Size, QFont::Normal);
}

QFont Theme::largeTitleFont(QFont::Weight weight) {
    return sized(baseFont(), kLargeTitleSize, weight);
}

QFont Theme::title2Font(QFont::Weight weight) {
    return sized(baseFont(), kTitle2Size, weight);
}

QFont Theme::title3Font(QFont::Weight weight) {
    return sized(baseFont(), kTitle3Size, weight);
}

QFont Theme::headlineFont() {
    return sized(baseFont(), kBodySize, QFont::DemiBold);
}

QFont Theme::bodyFont() {
    return sized(baseFont(), kBodySize, QFont::Normal);
}

QFont Theme::calloutFont() {
    return sized(baseFont(), kCalloutSize, QFont::Normal);
}

QFont Theme::captionFont() {
    return sized(baseFont(), kCaptionSize, QFont::Normal);
}

double Theme::easeOut(double t) {
    t = std::clamp(t, 0.0, 1.0);
    // x(u) of the curve rises monotonically, so bisection finds the parameter for time t.
    auto bezier = [](double p1, double p2, double u) {
        const double v = 1.0 - u;
        return 3.0 * v * v * u * p1 + 3.0 * v * u * u * p2 + u * u * u;
    };
    double low = 0.0;
    double high = 1.0;
    for (int i = 0; i < 40; ++i) {
        const double mid = 0.5 * (low + high);
        (bezier(0.0, 0.58, mid) < t ? low : high) = mid;
    }
    return bezier(0.0, 1.0, 0.5 * (low + high));
}

}  // namespace bw
