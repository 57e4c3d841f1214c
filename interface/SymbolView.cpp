#include "interface/SymbolView.h"

#include <QPainter>

#include "interface/ConsoleAccessibility.h"
#include "interface/SymbolImages.h"

namespace bw {

SymbolView::SymbolView(const QString& symbol, const QColor& color, int side, QWidget* parent)
    : QWidget(parent), symbol_(symbol), color_(color) {
    ConsoleAccessibility::install();
    setFixedSize(side, side);
    setAttribute(Qt::WA_TransparentForMouseEvents);
}

void SymbolView::setSymbol(const QString& symbol, const QColor& color) {
    symbol_ = symbol;
    color_ = color;
    update();
}

void SymbolView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    SymbolImages::draw(painter, symbol_, QRectF(rect()), color_);
}

}  // namespace bw
