#pragma once

#include <QGraphicsEffect>
#include <functional>

namespace bw {

/// Lets a console widget light the panel around itself: glows and rings painted beneath the
/// widget and beyond its rectangle, so they take no room in a layout (the widget's size stays the
/// size of the control itself).
///
/// The underlay paints in the widget's own coordinates, before the widget; the effect reaches
/// `reach` points beyond the widget on every side and clips there. The widget owns the effect
/// (`QWidget::setGraphicsEffect`) and calls `setReach` when its glow grows or shrinks. GUI thread.
class OverhangEffect : public QGraphicsEffect {
    Q_OBJECT
public:
    using Underlay = std::function<void(QPainter&)>;

    OverhangEffect(qreal reach, Underlay underlay, QObject* parent = nullptr);

    qreal reach() const { return reach_; }
    void setReach(qreal reach);

protected:
    QRectF boundingRectFor(const QRectF& rect) const override;
    void draw(QPainter* painter) override;

private:
    qreal reach_;
    Underlay underlay_;
};

}  // namespace bw
