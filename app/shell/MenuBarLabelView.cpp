#include "app/shell/MenuBarLabelView.h"

#include <QFontMetrics>
#include <QPainter>

#include "app/RecordingTimer.h"
#include "interface/SymbolImages.h"
#include "interface/Theme.h"

namespace bw {

namespace {

constexpr int kSpacing = 4;
constexpr int kSymbolSide = 14;

}  // namespace

MenuBarLabelView::MenuBarLabelView(RecordingTimer& timer, QWidget* parent)
    : QWidget(parent), timer_(timer) {
    connect(&timer_, &RecordingTimer::elapsedChanged, this, &MenuBarLabelView::refresh);
    refresh();
}

QString MenuBarLabelView::text() const {
    return timer_.compactElapsed();
}

QString MenuBarLabelView::accessibleLabel() const {
    return tr("Brightwave Record, recording, %1").arg(text());
}

QSize MenuBarLabelView::sizeHint() const {
    const QFontMetrics metrics(font());
    return {kSymbolSide + kSpacing + metrics.horizontalAdvance(text()) + 4,
            std::max(kSymbolSide, metrics.height()) + 4};
}

void MenuBarLabelView::refresh() {
    const QString now = text();
    setAccessibleName(accessibleLabel());
    if (now == shown_) {
        return;
    }
    shown_ = now;
    updateGeometry();
    update();
    emit textChanged(now);
}

void MenuBarLabelView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QFontMetrics metrics(font());
    const int textWidth = metrics.horizontalAdvance(shown_);
    const int total = kSymbolSide + kSpacing + textWidth;
    const double left = (width() - total) / 2.0;
    const double middle = height() / 2.0;
    SymbolImages::draw(painter, QStringLiteral("record.circle.fill"),
                       QRectF(left, middle - kSymbolSide / 2.0, kSymbolSide, kSymbolSide),
                       Theme::signalRed());
    painter.setPen(palette().color(QPalette::WindowText));
    painter.drawText(QRectF(left + kSymbolSide + kSpacing, 0, textWidth + 1, height()),
                     Qt::AlignVCenter | Qt::AlignLeft, shown_);
}

}  // namespace bw
