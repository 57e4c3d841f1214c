#pragma once

#include <QColor>
#include <QString>
#include <QWidget>

namespace bw {

/// One of the program's symbols as a decorative widget: `symbol` filled in `color`, fitted
/// into a square of `side` pixels and drawn afresh at every paint, so it stays sharp at any
/// screen scale. It takes no input and is hidden from assistive technology; the texts beside
/// it speak. GUI thread only.
class SymbolView : public QWidget {
    Q_OBJECT
public:
    SymbolView(const QString& symbol, const QColor& color, int side, QWidget* parent = nullptr);

    const QString& symbol() const { return symbol_; }
    const QColor& color() const { return color_; }

    /// Changes the drawing; an unknown name draws nothing.
    void setSymbol(const QString& symbol, const QColor& color);

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QString symbol_;
    QColor color_;
};

}  // namespace bw
