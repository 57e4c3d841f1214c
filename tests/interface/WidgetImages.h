#pragma once

#include <QByteArray>
#include <QColor>
#include <QDir>
#include <QImage>
#include <QWidget>
#include <cstdlib>

namespace bw::test {

/// Saves `picture` as `name` in the folder that BW_SCREENSHOT_DIR names (scripts/screenshots sets
/// it); without it, nothing. False only when a save was asked for and failed.
inline bool saveScreenshot(const QImage& picture, const QString& name) {
    const QByteArray directory = qgetenv("BW_SCREENSHOT_DIR");
    if (directory.isEmpty()) {
        return true;
    }
    const QDir folder(QString::fromLocal8Bit(directory));
    return folder.mkpath(QStringLiteral(".")) && picture.save(folder.filePath(name));
}

/// The widget painted alone on a transparent background (its window colour made clear for the
/// moment), as the device pixels of a grab. A grab, not `render` without background: Qt 6.4
/// misplaces children with graphics effects in the latter.
inline QImage paintedAlone(QWidget& widget) {
    const QPalette saved = widget.palette();
    QPalette clear = saved;
    clear.setColor(QPalette::Window, Qt::transparent);
    widget.setPalette(clear);
    const QImage image = widget.grab().toImage().convertToFormat(QImage::Format_ARGB32);
    widget.setPalette(saved);
    return image;
}

/// A transparent parent that holds a widget `margin` in from its top-left corner, so that what
/// the widget paints around itself (glows, rings) lands on the host's picture too.
struct Host {
    explicit Host(int margin) : margin(margin) {}

    /// Takes `widget` as its child at its size hint and returns it.
    template <typename W>
    W* hold(W* widget) {
        widget->setParent(&surface);
        widget->resize(widget->sizeHint());
        widget->move(margin, margin);
        surface.resize(widget->size() + QSize(2 * margin, 2 * margin));
        return widget;
    }

    /// The host painted with its child and the child's surroundings.
    QImage painted() { return paintedAlone(surface); }

    /// A point of the child in the host's picture.
    QPoint at(const QWidget& child, QPointF local) const {
        return (local + QPointF(child.pos())).toPoint();
    }

    int margin;
    QWidget surface;
};

/// Equal colours to within `tolerance` steps of 255 per component, alpha included.
inline bool nearColor(const QColor& a, const QColor& b, int tolerance = 1) {
    return std::abs(a.red() - b.red()) <= tolerance &&
           std::abs(a.green() - b.green()) <= tolerance &&
           std::abs(a.blue() - b.blue()) <= tolerance &&
           std::abs(a.alpha() - b.alpha()) <= tolerance;
}

}  // namespace bw::test
