#include "interface/SymbolImages.h"

#include <QIconEngine>
#include <QPainter>
#include <QPainterPathStroker>
#include <map>

namespace bw {

namespace {

QPainterPath stroked(const QPainterPath& line, double width, Qt::PenCapStyle cap = Qt::RoundCap) {
    QPainterPathStroker stroker;
    stroker.setWidth(width);
    stroker.setCapStyle(cap);
    stroker.setJoinStyle(Qt::RoundJoin);
    return stroker.createStroke(line).simplified();
}

QPainterPath segment(QPointF from, QPointF to) {
    QPainterPath path(from);
    path.lineTo(to);
    return path;
}

QPainterPath disc(QPointF center, double radius) {
    QPainterPath path;
    path.addEllipse(center, radius, radius);
    return path;
}

QPainterPath ring(QPointF center, double radius, double width) {
    return disc(center, radius + width / 2).subtracted(disc(center, radius - width / 2));
}

QPainterPath arc(QPointF center, double radius, double startDegrees, double sweepDegrees) {
    const QRectF box(center.x() - radius, center.y() - radius, 2 * radius, 2 * radius);
    QPainterPath path;
    path.arcMoveTo(box, startDegrees);
    path.arcTo(box, startDegrees, sweepDegrees);
    return path;
}

QPainterPath roundedRect(const QRectF& rect, double radius) {
    QPainterPath path;
    path.addRoundedRect(rect, radius, radius);
    return path;
}

// A glyph scaled about the centre of the design box, to sit inside a disc.
QPainterPath shrunk(const QPainterPath& glyph, double factor) {
    QTransform transform;
    transform.translate(12, 12);
    transform.scale(factor, factor);
    transform.translate(-12, -12);
    return transform.map(glyph);
}

QPainterPath cutOutOfDisc(const QPainterPath& glyph) {
    return disc({12, 12}, 11).subtracted(glyph);
}

QPainterPath speakerWithWaves() {
    QPainterPath body;
    body.moveTo(2.5, 9.2);
    body.lineTo(6.2, 9.2);
    body.lineTo(11.2, 4.6);
    body.lineTo(11.2, 19.4);
    body.lineTo(6.2, 14.8);
    body.lineTo(2.5, 14.8);
    body.closeSubpath();
    QPainterPath shape = body.united(stroked(body, 1.0));
    shape = shape.united(stroked(arc({11.5, 12}, 4.6, -42, 84), 1.9));
    shape = shape.united(stroked(arc({11.5, 12}, 8.4, -44, 88), 1.9));
    return shape;
}

QPainterPath waveformBars() {
    const double heights[] = {3.0, 9.0, 15.0, 7.0, 12.0, 5.0, 2.0};
    QPainterPath bars;
    for (int i = 0; i < 7; ++i) {
        const double x = 3.0 + 3.0 * i;
        const double half = heights[i] / 2;
        bars = bars.united(stroked(segment({x, 12 - half}, {x, 12 + half}), 1.8));
    }
    return bars;
}

QPainterPath checkmark() {
    QPainterPath tick(QPointF(7.4, 12.4));
    tick.lineTo(10.6, 15.4);
    tick.lineTo(16.6, 8.8);
    return stroked(tick, 2.3);
}

QPainterPath cross() {
    return stroked(segment({8.6, 8.6}, {15.4, 15.4}), 2.1)
        .united(stroked(segment({15.4, 8.6}, {8.6, 15.4}), 2.1));
}

std::map<QString, QPainterPath> buildTable() {
    std::map<QString, QPainterPath> table;

    table["record.circle"] = ring({12, 12}, 10.2, 1.8).united(disc({12, 12}, 5.6));
    table["record.circle.fill"] = disc({12, 12}, 11).subtracted(ring({12, 12}, 6.9, 1.5));
    table["stop.fill"] = roundedRect(QRectF(4.5, 4.5, 15, 15), 3.5);

    QPainterPath headphones = stroked(arc({12, 13.5}, 8.4, 180, -180), 2.0);
    headphones = headphones.united(roundedRect(QRectF(2.6, 12.5, 5.2, 8.5), 2.0));
    headphones = headphones.united(roundedRect(QRectF(16.2, 12.5, 5.2, 8.5), 2.0));
    table["headphones"] = headphones;

    QPainterPath laptop = roundedRect(QRectF(4.2, 4.5, 15.6, 11.2), 1.6)
                              .subtracted(roundedRect(QRectF(5.9, 6.2, 12.2, 7.8), 0.6));
    QPainterPath base = roundedRect(QRectF(1.5, 16.8, 21, 2.7), 1.3)
                            .subtracted(roundedRect(QRectF(10, 16.8, 4, 0.9), 0.4));
    table["macbook"] = laptop.united(base);

    QPainterPath mic = roundedRect(QRectF(8.8, 2.2, 6.4, 11.6), 3.2);
    mic = mic.united(stroked(arc({12, 9.8}, 6.2, 180, 180), 1.8));
    mic = mic.united(stroked(segment({12, 16}, {12, 19.6}), 1.8));
    mic = mic.united(stroked(segment({8.6, 20.2}, {15.4, 20.2}), 1.8));
    table["mic.fill"] = mic;

    QPainterPath frame;
    frame.addRoundedRect(QRectF(3.2, 3.2, 17.6, 17.6), 4.6, 4.6);
    QPainterPathStroker dashes;
    dashes.setWidth(1.6);
    dashes.setCapStyle(Qt::FlatCap);
    dashes.setDashPattern({1.6, 1.25});
    table["app.dashed"] = dashes.createStroke(frame);

    table["speaker.wave.2.fill"] = speakerWithWaves();
    table["speaker.wave.2.circle.fill"] =
        cutOutOfDisc(shrunk(speakerWithWaves().translated(0.6, 0), 0.6));
    table["checkmark.circle.fill"] = cutOutOfDisc(checkmark());
    table["xmark.circle.fill"] = cutOutOfDisc(cross());

    QPainterPath triangle;
    triangle.moveTo(12, 3.2);
    triangle.lineTo(21.6, 20.0);
    triangle.lineTo(2.4, 20.0);
    triangle.closeSubpath();
    QPainterPath warning = triangle.united(stroked(triangle, 2.4));
    warning = warning.subtracted(stroked(segment({12, 9.0}, {12, 13.8}), 2.2));
    warning = warning.subtracted(disc({12, 17.1}, 1.3));
    table["exclamationmark.triangle.fill"] = warning;

    QPainterPath folder(QPointF(2.8, 7.2));
    folder.quadTo(2.8, 5.0, 5.0, 5.0);
    folder.lineTo(9.0, 5.0);
    folder.lineTo(11.0, 7.2);
    folder.lineTo(19.0, 7.2);
    folder.quadTo(21.2, 7.2, 21.2, 9.4);
    folder.lineTo(21.2, 17.8);
    folder.quadTo(21.2, 20.0, 19.0, 20.0);
    folder.lineTo(5.0, 20.0);
    folder.quadTo(2.8, 20.0, 2.8, 17.8);
    folder.closeSubpath();
    table["folder"] = stroked(folder, 1.6).united(stroked(segment({2.8, 10}, {21.2, 10}), 1.6));

    table["magnifyingglass"] =
        ring({10, 10}, 6.2, 2.0).united(stroked(segment({14.8, 14.8}, {20.6, 20.6}), 2.6));

    // Eight teeth around a wheel with a hole in its hub.
    QPainterPath gear = disc({12, 12}, 7.4);
    for (int tooth = 0; tooth < 8; ++tooth) {
        QTransform turn;
        turn.translate(12, 12);
        turn.rotate(45.0 * tooth);
        gear = gear.united(turn.map(roundedRect(QRectF(-1.9, -10.8, 3.8, 5.0), 0.9)));
    }
    table["gear"] = gear.subtracted(disc({12, 12}, 3.3));

    QPainterPath info = ring({12, 12}, 9.9, 1.7).united(disc({12, 7.6}, 1.35));
    table["info.circle"] = info.united(roundedRect(QRectF(11.05, 10.4, 1.9, 7.4), 0.9));

    table["waveform"] = waveformBars();
    table["waveform.circle.fill"] = cutOutOfDisc(shrunk(waveformBars(), 0.62));

    return table;
}

const std::map<QString, QPainterPath>& table() {
    static const std::map<QString, QPainterPath> symbols = buildTable();
    return symbols;
}

class SymbolIconEngine final : public QIconEngine {
public:
    SymbolIconEngine(QString name, QColor color) : name_(std::move(name)), color_(color) {}

    void paint(QPainter* painter, const QRect& rect, QIcon::Mode mode, QIcon::State) override {
        QColor color = color_;
        if (mode == QIcon::Disabled) {
            color.setAlphaF(color.alphaF() * 0.4f);
        }
        SymbolImages::draw(*painter, name_, rect, color);
    }

    QPixmap pixmap(const QSize& size, QIcon::Mode mode, QIcon::State state) override {
        QPixmap result(size);
        result.fill(Qt::transparent);
        QPainter painter(&result);
        paint(&painter, QRect(QPoint(0, 0), size), mode, state);
        return result;
    }

    QIconEngine* clone() const override { return new SymbolIconEngine(name_, color_); }

private:
    QString name_;
    QColor color_;
};

}  // namespace

QStringList SymbolImages::names() {
    QStringList result;
    for (const auto& entry : table()) {
        result << entry.first;
    }
    return result;
}

bool SymbolImages::contains(const QString& name) {
    return table().count(name) > 0;
}

QPainterPath SymbolImages::path(const QString& name) {
    const auto found = table().find(name);
    return found == table().end() ? QPainterPath() : found->second;
}

bool SymbolImages::draw(QPainter& painter, const QString& name, const QRectF& box,
                        const QColor& color) {
    const auto found = table().find(name);
    if (found == table().end() || box.isEmpty()) {
        return false;
    }
    const double scale = std::min(box.width(), box.height()) / designSize;
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    painter.translate(box.center());
    painter.scale(scale, scale);
    painter.translate(-designSize / 2, -designSize / 2);
    painter.fillPath(found->second, color);
    painter.restore();
    return true;
}

QPixmap SymbolImages::pixmap(const QString& name, const QSize& size, const QColor& color,
                             qreal devicePixelRatio) {
    QPixmap result(size * devicePixelRatio);
    result.setDevicePixelRatio(devicePixelRatio);
    result.fill(Qt::transparent);
    QPainter painter(&result);
    draw(painter, name, QRectF(QPointF(0, 0), QSizeF(size)), color);
    return result;
}

QIcon SymbolImages::icon(const QString& name, const QColor& color) {
    return QIcon(new SymbolIconEngine(name, color));
}

}  // namespace bw
