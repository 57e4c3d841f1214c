#include "interface/ArmIndicator.h"

#include <QPainter>
#include <algorithm>

#include "interface/ConsoleAccessibility.h"
#include "interface/Theme.h"

namespace bw {

ArmIndicator::ArmIndicator(QWidget* parent) : QWidget(parent) {
    ConsoleAccessibility::install();
    setFixedSize(side, side);
    setClock(ConsoleClock::system());
}

void ArmIndicator::setClock(ConsoleClock* clock) {
    if (clock_) {
        disconnect(clock_, &ConsoleClock::frame, this, nullptr);
    }
    clock_ = clock;
    connect(clock_, &ConsoleClock::frame, this, &ArmIndicator::advance);
}

QColor ArmIndicator::lampColor() const {
    return recording_ ? Theme::signalRed() : Theme::accent();
}

void ArmIndicator::setArmed(bool armed) {
    if (armed == armed_) {
        return;
    }
    armed_ = armed;
    if (!lamp_.isMoving()) {
        lastFrame_ = clock_->now();
    }
    lamp_.animateTo(armed ? 1.0 : 0.0, Theme::armLamp());
    clock_->requestFrame();
    update();
}

void ArmIndicator::setRecording(bool recording) {
    recording_ = recording;
    update();
}

void ArmIndicator::advance() {
    if (!lamp_.isMoving()) {
        return;
    }
    const auto now = clock_->now();
    const double seconds = std::chrono::duration<double>(now - lastFrame_).count();
    lastFrame_ = now;
    if (lamp_.step(seconds)) {
        clock_->requestFrame();
    }
    update();
}

void ArmIndicator::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF frame(0, 0, side, side);
    const QPointF center = frame.center();
    const double lit = lampProgress();
    const double fade = std::clamp(lit, 0.0, 1.0);

    // The empty ring gives way to the lamp as it comes on.
    if (fade < 1.0) {
        painter.setPen(
            QPen(Theme::withOpacity(Theme::secondary(palette()), 0.55 * (1.0 - fade)), 1.5));
        painter.setBrush(Qt::NoBrush);
        painter.drawEllipse(center, side / 2.0 - 0.75, side / 2.0 - 0.75);
    }
    if (fade <= 0.0) {
        return;
    }
    const double scale = std::max(lit, 0.00001);
    painter.setOpacity(fade);
    painter.setPen(Qt::NoPen);
    painter.setBrush(lampColor());
    painter.drawEllipse(center, side / 2.0 * scale, side / 2.0 * scale);
    painter.setPen(QPen(QColor::fromRgbF(1, 1, 1, 0.25f), 1.0));
    painter.setBrush(Qt::NoBrush);
    painter.drawEllipse(center, side / 2.0 - 0.5, side / 2.0 - 0.5);
}

}  // namespace bw
