#pragma once

#include <QColor>
#include <QIcon>
#include <QPainterPath>
#include <QPixmap>
#include <QStringList>

class QPainter;

namespace bw {

/// The program's symbols, drawn here and nowhere else: each symbol name the views use
/// ("record.circle", "headphones", "mic.fill", …) maps to one outline of ours, a filled path in
/// a 24 × 24 design box. Filled variants ("….circle.fill") are a disc with the glyph cut out, so
/// they work on any background.
///
/// Paths are built once, on first use, and shared; any thread may read them. Painting and
/// pixmaps need a `QGuiApplication`, like all painting.
class SymbolImages {
public:
    SymbolImages() = delete;

    /// Side of the design box of every path.
    static constexpr double designSize = 24.0;

    /// Every symbol name known, sorted.
    static QStringList names();
    static bool contains(const QString& name);

    /// The outline of `name` in the design box; an empty path for an unknown name.
    static QPainterPath path(const QString& name);

    /// Fills `name` in `color`, fitted into `box` (centred, proportions kept). Returns false and
    /// draws nothing for an unknown name.
    static bool draw(QPainter& painter, const QString& name, const QRectF& box,
                     const QColor& color);

    /// `name` in `color` on a transparent pixmap of `size` device-independent pixels.
    static QPixmap pixmap(const QString& name, const QSize& size, const QColor& color,
                          qreal devicePixelRatio = 1.0);

    /// `name` in `color`, for buttons and menus; drawn afresh at each size asked for.
    static QIcon icon(const QString& name, const QColor& color);
};

}  // namespace bw
