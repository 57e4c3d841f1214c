#include "interface/GlowUnderlay.h"

#include <QEvent>
#include <QPainter>
#include <cmath>

namespace bw {

GlowUnderlay::GlowUnderlay(QWidget* owner, qreal reach, Paint paint)
    : QWidget(owner->parentWidget()), owner_(owner), reach_(reach), paint_(std::move(paint)) {
    setAttribute(Qt::WA_TransparentForMouseEvents);
    setFocusPolicy(Qt::NoFocus);
    owner->installEventFilter(this);
    connect(owner, &QObject::destroyed, this, [this] { delete this; });
    follow();
}

int GlowUnderlay::margin() const {
    return static_cast<int>(std::ceil(reach_));
}

void GlowUnderlay::setReach(qreal reach) {
    if (reach == reach_) {
        return;
    }
    const bool grows = reach > reach_;
    reach_ = reach;
    if (!grows) {
        // What the larger margin lit is the parent's to repaint once the underlay shrinks.
        if (QWidget* parent = parentWidget()) {
            parent->update(geometry());
        }
    }
    follow();
    update();
}

void GlowUnderlay::updateOwnerRect(const QRectF& rect) {
    update(rect.translated(margin(), margin()).toAlignedRect());
}

void GlowUnderlay::follow() {
    if (!owner_) {
        return;
    }
    QWidget* parent = owner_->parentWidget();
    if (parent != parentWidget()) {
        setParent(parent);  // hides; shown again below when the owner is
    }
    if (!parent) {
        hide();
        return;
    }
    const int m = margin();
    setGeometry(owner_->geometry().adjusted(-m, -m, m, m));
    stackUnder(owner_);
    setVisible(!owner_->isHidden());
}

bool GlowUnderlay::eventFilter(QObject* watched, QEvent* event) {
    if (watched == owner_) {
        switch (event->type()) {
            case QEvent::ParentChange:
            case QEvent::Move:
            case QEvent::Resize:
            case QEvent::ShowToParent:
            case QEvent::HideToParent:
            case QEvent::ZOrderChange:
                follow();
                break;
            default:
                break;
        }
    }
    return QWidget::eventFilter(watched, event);
}

void GlowUnderlay::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.translate(margin(), margin());
    paint_(painter);
}

}  // namespace bw
