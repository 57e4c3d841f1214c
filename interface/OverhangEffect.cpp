#include "interface/OverhangEffect.h"

#include <QPainter>
#include <cmath>

namespace bw {

OverhangEffect::OverhangEffect(qreal reach, Underlay underlay, QObject* parent)
    : QGraphicsEffect(parent), reach_(reach), underlay_(std::move(underlay)) {}

void OverhangEffect::setReach(qreal reach) {
    if (reach == reach_) {
        return;
    }
    reach_ = reach;
    updateBoundingRect();
}

QRectF OverhangEffect::boundingRectFor(const QRectF& rect) const {
    const qreal margin = std::ceil(reach_);
    return rect.adjusted(-margin, -margin, margin, margin);
}

void OverhangEffect::draw(QPainter* painter) {
    painter->save();
    painter->setRenderHint(QPainter::Antialiasing);
    underlay_(*painter);
    painter->restore();
    drawSource(painter);
}

}  // namespace bw
