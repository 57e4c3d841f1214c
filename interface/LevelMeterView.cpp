#include "interface/LevelMeterView.h"

#include <QLinearGradient>
#include <QPainter>
#include <algorithm>

#include "interface/ConsoleAccessibility.h"
#include "interface/Theme.h"

namespace bw {

LevelMeterView::LevelMeterView(QWidget* parent) : QWidget(parent) {
    ConsoleAccessibility::install();
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    setFixedHeight(barHeight);
}

double LevelMeterView::litWidth() const {
    return std::max(width() * static_cast<double>(std::min(level_, 1.0f)), 0.0);
}

void LevelMeterView::setLevel(float level) {
    level_ = level;
    update();
}

void LevelMeterView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    const QRectF track(rect());
    const double radius = track.height() / 2;
    painter.setBrush(Theme::withOpacity(Theme::secondary(palette()), 0.15));
    painter.drawRoundedRect(track, radius, radius);

    const double lit = litWidth();
    if (lit <= 0.0) {
        return;
    }
    const QRectF bar(0, 0, lit, track.height());
    QLinearGradient gradient(bar.topLeft(), bar.topRight());
    gradient.setColorAt(0.0, Theme::green());
    gradient.setColorAt(1.0 / 3.0, Theme::green());
    gradient.setColorAt(2.0 / 3.0, Theme::yellow());
    gradient.setColorAt(1.0, Theme::red());
    painter.setBrush(gradient);
    const double capRadius = std::min(lit, track.height()) / 2;
    painter.drawRoundedRect(bar, capRadius, capRadius);
}

}  // namespace bw
