#include "shell/ApplicationIcon.h"

#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>
#include <QRadialGradient>

#include "interface/Theme.h"

namespace bw {

QImage ApplicationIcon::image(int side) {
    QImage image(side, side, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.scale(side / 256.0, side / 256.0);

    // The console key: a rounded square with a lit top edge.
    const QRectF body(16, 16, 224, 224);
    QLinearGradient panel(body.topLeft(), body.bottomLeft());
    panel.setColorAt(0, Theme::consoleTop().lighter(115));
    panel.setColorAt(1, Theme::consoleBottom());
    painter.setPen(QPen(QColor(255, 255, 255, 40), 3));
    painter.setBrush(panel);
    painter.drawRoundedRect(body, 52, 52);

    // The record button with its glow.
    const QPointF centre(128, 112);
    QRadialGradient glow(centre, 92);
    glow.setColorAt(0.55, Theme::withOpacity(Theme::signalRed(), 0.45));
    glow.setColorAt(1.0, Theme::withOpacity(Theme::signalRed(), 0.0));
    painter.setPen(Qt::NoPen);
    painter.setBrush(glow);
    painter.drawEllipse(centre, 92, 92);
    painter.setBrush(QColor(20, 18, 16));
    painter.drawEllipse(centre, 62, 62);
    QLinearGradient key(centre - QPointF(0, 52), centre + QPointF(0, 52));
    key.setColorAt(0, Theme::recordTop());
    key.setColorAt(1, Theme::recordBottom());
    painter.setBrush(key);
    painter.drawEllipse(centre, 52, 52);
    QLinearGradient shine(centre - QPointF(0, 50), centre);
    shine.setColorAt(0, QColor(255, 255, 255, 110));
    shine.setColorAt(1, QColor(255, 255, 255, 0));
    painter.setBrush(shine);
    painter.drawEllipse(QRectF(centre.x() - 34, centre.y() - 48, 68, 42));

    // An amber meter: eight segments rising left to right.
    const QColor amber = Theme::consoleAmber();
    for (int segment = 0; segment < 8; ++segment) {
        const QRectF lamp(50 + segment * 20.5, 196, 15, 14);
        painter.setBrush(segment < 6 ? amber : Theme::withOpacity(amber, 0.28));
        painter.drawRoundedRect(lamp, 3, 3);
    }
    return image;
}

QIcon ApplicationIcon::icon() {
    QIcon drawn;
    for (const int side : {16, 24, 32, 48, 64, 128, 256}) {
        drawn.addPixmap(QPixmap::fromImage(image(side)));
    }
    return QIcon::fromTheme(QString::fromLatin1(kName), drawn);
}

}  // namespace bw
