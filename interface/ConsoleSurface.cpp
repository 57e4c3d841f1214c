#include "interface/ConsoleSurface.h"

#include <QLinearGradient>
#include <QPaintEvent>
#include <QPainter>

#include "interface/GrainOverlay.h"
#include "interface/Theme.h"

namespace bw {

ConsoleSurface::ConsoleSurface(QWidget* parent, GrainTextureCache* cache)
    : QWidget(parent), grain_(new GrainOverlay(grainOpacity, cache, this)) {
    setAttribute(Qt::WA_OpaquePaintEvent);
    setAutoFillBackground(false);
    connect(grain_, &GrainOverlay::textureChanged, this, [this] {
        pictureStale_ = true;
        update();
    });
}

void ConsoleSurface::paintEvent(QPaintEvent* event) {
    // Measuring here follows every resize and every move to a screen of another scale.
    const qreal ratio = devicePixelRatioF();
    grain_->updateSize(QSizeF(size()), ratio);
    const QSize pixels = (QSizeF(size()) * ratio).toSize();
    if (pictureStale_ || picture_.size() != pixels || picture_.devicePixelRatio() != ratio) {
        picture_ = QPixmap(pixels);
        picture_.setDevicePixelRatio(ratio);
        QPainter painter(&picture_);
        const QRectF bounds(rect());
        QLinearGradient gradient(bounds.topLeft(), bounds.bottomLeft());
        gradient.setColorAt(0.0, Theme::consoleTop());
        gradient.setColorAt(1.0, Theme::consoleBottom());
        painter.fillRect(bounds, gradient);

        grain_->paint(painter, bounds);

        painter.fillRect(QRectF(0, 0, bounds.width(), 1), QColor::fromRgbF(1, 1, 1, 0.07f));
        painter.fillRect(QRectF(0, bounds.height() - 1, bounds.width(), 1),
                         QColor::fromRgbF(0, 0, 0, 0.5f));
        pictureStale_ = false;
    }
    // Only the exposed rectangles: a whole-panel blit clipped small still costs the raster engine
    // a pass over the panel (and a hand-off to its threads) for every meter step.
    QPainter painter(this);
    for (const QRect& exposed : event->region()) {
        const QRectF source(QPointF(exposed.topLeft()) * ratio, QSizeF(exposed.size()) * ratio);
        painter.drawPixmap(QRectF(exposed), picture_, source);
    }
}

}  // namespace bw
