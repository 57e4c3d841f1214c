#pragma once

#include <QPointer>
#include <QWidget>
#include <functional>

class QPainter;

namespace bw {

/// Lights the panel around a console widget: a sibling stacked just beneath the widget that
/// reaches `reach` points beyond it on every side and paints the widget's glow there. Glows and
/// rings so take no room in a layout, and the widget itself repaints only its own rectangle.
///
/// The paint function draws in the owner's coordinates. The underlay follows the owner's parent,
/// geometry, shown state and stacking through an event filter; it takes no input and no focus.
/// While the owner has no parent widget it stays hidden and parentless. It goes when the owner
/// goes (Qt's ownership otherwise: its parent is the owner's parent). The owner asks for a
/// repaint (`updateOwnerRect`) only when its glow changed. GUI thread only.
class GlowUnderlay : public QWidget {
    Q_OBJECT
public:
    using Paint = std::function<void(QPainter&)>;

    GlowUnderlay(QWidget* owner, qreal reach, Paint paint);

    qreal reach() const { return reach_; }
    /// Grows or shrinks the lit margin; repaints what it covered and covers now.
    void setReach(qreal reach);

    /// Repaints `rect` of the owner's coordinates (within the lit margin).
    void updateOwnerRect(const QRectF& rect);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;
    void paintEvent(QPaintEvent* event) override;

private:
    void follow();
    int margin() const;

    QPointer<QWidget> owner_;
    qreal reach_;
    Paint paint_;
};

}  // namespace bw
