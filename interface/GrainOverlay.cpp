#include "interface/GrainOverlay.h"

#include <QPainter>
#include <QPointer>
#include <charconv>

#include "interface/GrainTextureCache.h"

namespace bw {

namespace {

QString shortestWithFraction(double value) {
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    std::string text(buffer, result.ptr);
    if (text.find_first_of(".einn") == std::string::npos) {
        text += ".0";
    }
    return QString::fromStdString(text);
}

}  // namespace

GrainOverlay::GrainOverlay(double opacity, GrainTextureCache* cache, QObject* parent)
    : QObject(parent), cache_(cache ? cache : &GrainTextureCache::shared()), opacity_(opacity) {}

QString GrainOverlay::loadingKey(QSizeF size, double scale) {
    return shortestWithFraction(size.width()) + "x" + shortestWithFraction(size.height()) + "@" +
           shortestWithFraction(scale);
}

void GrainOverlay::updateSize(QSizeF size, double scale) {
    const QString key = loadingKey(size, scale);
    if (key == key_) {
        return;
    }
    key_ = key;
    const quint64 generation = ++generation_;
    QPointer<GrainOverlay> self(this);
    cache_->request(
        size.width(), size.height(), scale, [self, generation](std::optional<QImage> image) {
            if (!self || self->generation_ != generation) {
                return;  // superseded by a newer size
            }
            self->texture_ = std::move(image);
            self->premultiplied_ =
                self->texture_
                    ? self->texture_->convertToFormat(QImage::Format_ARGB32_Premultiplied)
                    : QImage();
            emit self->textureChanged();
        });
}

void GrainOverlay::paint(QPainter& painter, const QRectF& rect) const {
    if (premultiplied_.isNull()) {
        return;
    }
    painter.save();
    painter.setRenderHint(QPainter::SmoothPixmapTransform, false);
    painter.setCompositionMode(QPainter::CompositionMode_Overlay);
    painter.setOpacity(painter.opacity() * opacity_);
    painter.drawImage(rect, premultiplied_, QRectF(premultiplied_.rect()));
    painter.restore();
}

}  // namespace bw
