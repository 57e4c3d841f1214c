#include "interface/ChannelFader.h"

#include <QLinearGradient>
#include <QMouseEvent>
#include <QPainter>
#include <algorithm>
#include <cmath>

#include "interface/ConsoleAccessibility.h"
#include "interface/Theme.h"

namespace bw {

ChannelFader::ChannelFader(QWidget* parent) : QWidget(parent), clock_(nullptr) {
    ConsoleAccessibility::install();
    setContentsMargins(hitMargin, hitMargin, hitMargin, hitMargin);
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
    setClock(ConsoleClock::system());
}

void ChannelFader::setClock(ConsoleClock* clock) {
    if (clock_) {
        disconnect(clock_, &ConsoleClock::frame, this, nullptr);
    }
    clock_ = clock;
    connect(clock_, &ConsoleClock::frame, this, &ChannelFader::advanceKnob);
}

QString ChannelFader::accessibleValue() const {
    return tr("%1 percent").arg(accessiblePercent());
}

int ChannelFader::accessiblePercent() const {
    return static_cast<int>(value_ / unity * 100.0f);
}

QRectF ChannelFader::trackRect() const {
    return QRectF(contentsRect());
}

QSizeF ChannelFader::faderSize() const {
    // Measured when asked, so a size set before the widget is shown counts as well.
    const QSizeF measured = trackRect().size();
    if (measured.width() > 0 && measured.height() > 0) {
        faderSize_ = measured;
    }
    return faderSize_;
}

double ChannelFader::unityX() const {
    return faderSize().width() * unity / maxValue;
}

double ChannelFader::knobX() const {
    const double shown = std::clamp(knob_.value(), 0.0, static_cast<double>(maxValue));
    return faderSize().width() * shown / maxValue;
}

double ChannelFader::levelWidth() const {
    return std::max(unityX() * std::min(currentLevel_, 1.0f), 0.0);
}

QSize ChannelFader::sizeHint() const {
    return QSize(170 + 2 * hitMargin, 14 + 2 * hitMargin);
}

QSize ChannelFader::minimumSizeHint() const {
    return QSize(2 * hitMargin + 1, 2 * hitMargin + 1);
}

void ChannelFader::setValue(float value) {
    knob_.jumpTo(value);
    store(value);
    update();
}

void ChannelFader::setSourceID(const QString& sourceID) {
    sourceID_ = sourceID;
}

void ChannelFader::setLevel(float level) {
    if (level == level_) {
        return;
    }
    level_ = level;
    if (sourceID_.isEmpty()) {
        currentLevel_ = level;
        update();
    }
}

void ChannelFader::setSourceLevel(float level) {
    if (sourceID_.isEmpty()) {
        return;
    }
    currentLevel_ = level;
    update();
}

void ChannelFader::increment() {
    const Spring spring = Theme::defaultAnimation();
    apply(std::min(value_ + accessibilityStep, maxValue), &spring);
}

void ChannelFader::decrement() {
    const Spring spring = Theme::defaultAnimation();
    apply(std::max(value_ - accessibilityStep, 0.0f), &spring);
}

void ChannelFader::editTo(float value) {
    if (!isEnabled() || !std::isfinite(value)) {
        return;
    }
    const Spring spring = Theme::defaultAnimation();
    apply(std::clamp(value, 0.0f, maxValue), &spring);
}

void ChannelFader::dragTo(double x) {
    const double width = faderSize().width();
    if (!isEnabled() || width <= 0.0) {
        return;
    }
    const float candidate = std::clamp(static_cast<float>(maxValue * (x / width)), 0.0f, maxValue);
    apply(candidate, nullptr);
}

void ChannelFader::apply(float candidate, const Spring* animation) {
    const auto startMotion = [this](float target, const Spring& spring) {
        if (!knob_.isMoving()) {
            lastFrame_ = clock_->now();
        }
        knob_.animateTo(target, spring);
        clock_->requestFrame();
    };
    if (std::abs(candidate - unity) < detentWidth) {
        if (!inDetent_) {
            inDetent_ = true;
            emit detentTicked();  // haptics: none on this desktop; the snap below is the feel
            startMotion(unity, Theme::detentSnap());
        } else if (!(knob_.isMoving() && knob_.target() == unity)) {
            knob_.jumpTo(unity);
        }
        store(unity);
        emit valueEdited(unity);
        return;
    }
    inDetent_ = false;
    if (animation) {
        startMotion(candidate, *animation);
    } else {
        knob_.jumpTo(candidate);
    }
    store(candidate);
    emit valueEdited(candidate);
}

void ChannelFader::store(float value) {
    update();
    if (value == value_) {
        return;
    }
    value_ = value;
    ConsoleAccessibility::notifyValueChanged(this);
    emit valueChanged(value);
}

void ChannelFader::advanceKnob() {
    if (!knob_.isMoving()) {
        return;
    }
    const auto now = clock_->now();
    const double seconds = std::chrono::duration<double>(now - lastFrame_).count();
    lastFrame_ = now;
    if (knob_.step(seconds)) {
        clock_->requestFrame();
    }
    update();
}

void ChannelFader::mousePressEvent(QMouseEvent* event) {
    if (event->button() != Qt::LeftButton) {
        QWidget::mousePressEvent(event);
        return;
    }
    dragTo(event->position().x() - trackRect().left());
}

void ChannelFader::mouseMoveEvent(QMouseEvent* event) {
    if (!(event->buttons() & Qt::LeftButton)) {
        QWidget::mouseMoveEvent(event);
        return;
    }
    dragTo(event->position().x() - trackRect().left());
}

void ChannelFader::changeEvent(QEvent* event) {
    if (event->type() == QEvent::EnabledChange || event->type() == QEvent::PaletteChange) {
        update();
    }
    QWidget::changeEvent(event);
}

void ChannelFader::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    if (isEnabled()) {
        paintControl(painter);
        return;
    }
    // Half strength applies to the control as one picture, not to each overlapping layer.
    const qreal ratio = devicePixelRatioF();
    QImage layer((QSizeF(size()) * ratio).toSize(), QImage::Format_ARGB32_Premultiplied);
    layer.setDevicePixelRatio(ratio);
    layer.fill(Qt::transparent);
    {
        QPainter layerPainter(&layer);
        paintControl(layerPainter);
    }
    painter.setOpacity(0.5);
    painter.drawImage(QPointF(0, 0), layer);
}

void ChannelFader::paintControl(QPainter& painter) const {
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    const QRectF track = trackRect();
    const double h = track.height();
    const QColor primary = Theme::primary(palette());

    painter.setBrush(Theme::withOpacity(primary, 0.08));
    painter.drawRoundedRect(track, h / 2, h / 2);

    if (const double lit = levelWidth(); lit > 0.0) {
        const QRectF level(track.left(), track.top(), lit, h);
        QLinearGradient gradient(level.topLeft(), level.topRight());
        gradient.setColorAt(0.0, Theme::withOpacity(Theme::accent(), 0.55));
        gradient.setColorAt(0.5, Theme::accent());
        gradient.setColorAt(1.0, Theme::signalRed());
        painter.setBrush(gradient);
        const double radius = std::min(lit, h) / 2;
        painter.drawRoundedRect(level, radius, radius);
    }

    const double centerY = track.center().y();
    painter.setBrush(Theme::withOpacity(primary, 0.3));
    painter.drawRect(QRectF(track.left() + unityX() - 0.5, centerY - (h + 4) / 2, 1.0, h + 4));

    const QRectF knob(track.left() + knobX() - 2.5, centerY - (h + 8) / 2, 5.0, h + 8);
    // A soft drop shadow, a little below the knob, built from widening faint layers.
    for (int i = 3; i >= 1; --i) {
        const double spread = 0.5 * i;
        painter.setBrush(QColor::fromRgbF(0, 0, 0, static_cast<float>(0.35 / (i + 1))));
        painter.drawRoundedRect(knob.translated(0, 0.5).adjusted(-spread, -spread, spread, spread),
                                2 + spread, 2 + spread);
    }
    painter.setBrush(Qt::white);
    painter.drawRoundedRect(knob, 2.0, 2.0);
}

}  // namespace bw
