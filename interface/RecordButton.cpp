#include "interface/RecordButton.h"

#include <QFocusEvent>
#include <QFontMetricsF>
#include <QLinearGradient>
#include <QMouseEvent>
#include <QPainter>
#include <algorithm>
#include <cmath>

#include "interface/GlowUnderlay.h"
#include "interface/SoftShadow.h"
#include "interface/Theme.h"

namespace bw {

namespace {
constexpr double kGlowOffsetY = 2.0;
constexpr double kRingWidth = 2.0;
constexpr double kRingGrowth = 0.4;
constexpr double kLoudestGlow = 26.0;

long quarterPoints(double value) {
    return std::lround(value * 4.0);
}

long halfPoints(double value) {
    return std::lround(value * 2.0);
}
}  // namespace

RecordButton::RecordButton(QWidget* parent)
    : QAbstractButton(parent),
      underlay_(
          new GlowUnderlay(this, 0.0, [this](QPainter& painter) { paintUnderlay(painter); })) {
    setObjectName(QStringLiteral("recordButton"));
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
    // Focus by keyboard only, so a click doesn't leave a focus ring on the key.
    setFocusPolicy(Qt::TabFocus);
    setClock(ConsoleClock::system());
    updateTexts();
    updateOverhang();
}

void RecordButton::setClock(ConsoleClock* clock) {
    if (clock_) {
        disconnect(clock_, &ConsoleClock::frame, this, nullptr);
    }
    clock_ = clock;
    connect(clock_, &ConsoleClock::frame, this, &RecordButton::advance);
    updatePulse();
}

double RecordButton::glowRadius() const {
    if (recording_) {
        return 12.0 + (kLoudestGlow - 12.0) * std::clamp(static_cast<double>(rawLevel_), 0.0, 1.0);
    }
    return keyEnabled_ ? 9.0 : 5.0;
}

double RecordButton::glowOpacity() const {
    if (recording_) {
        return 0.6;
    }
    return keyEnabled_ ? 0.45 : 0.25;
}

double RecordButton::pulsePhase() const {
    if (!pulsing_) {
        return 0.0;
    }
    const double elapsed = std::chrono::duration<double>(clock_->now() - pulseStart_).count();
    const double swing = elapsed / Theme::pulsePeriod;
    return Theme::easeOut(swing - std::floor(swing));
}

double RecordButton::pulseScale() const {
    return 1.0 + 0.4 * pulsePhase();
}

double RecordButton::pulseOpacity() const {
    return 0.7 * (1.0 - pulsePhase());
}

QRectF RecordButton::keyRect() const {
    return QRectF(width() / 2.0 - keyDiameter / 2, 0, keyDiameter, keyDiameter);
}

double RecordButton::overhang() const {
    const double glow = SoftShadow::reach(recording_ ? kLoudestGlow : glowRadius()) + kGlowOffsetY;
    const double ring =
        pulseRingVisible() ? keyDiameter / 2 * kRingGrowth + kRingWidth * (1 + kRingGrowth) : 0.0;
    return std::max(glow, ring);
}

void RecordButton::updateOverhang() {
    underlay_->setReach(overhang());
}

QRectF RecordButton::glowRect(double radius) const {
    const double outer = keyDiameter / 2 + SoftShadow::reach(radius) + 1.0;
    const QPointF center = keyRect().center() + QPointF(0, kGlowOffsetY);
    return QRectF(center.x() - outer, center.y() - outer, 2 * outer, 2 * outer);
}

QSize RecordButton::sizeHint() const {
    const QFontMetricsF metrics(Theme::recordCaptionFont());
    const double captionWidth =
        std::max(metrics.horizontalAdvance(tr("Record")), metrics.horizontalAdvance(tr("Stop")));
    const double width = std::max(keyDiameter, std::ceil(captionWidth));
    const double height = keyDiameter + captionSpacing + std::ceil(metrics.height());
    return QSize(static_cast<int>(width), static_cast<int>(height));
}

void RecordButton::setRecording(bool recording) {
    if (recording == recording_) {
        return;
    }
    recording_ = recording;
    glyph_.animateTo(recording ? 1.0 : 0.0, Theme::recordGlyph());
    startMotion();
    updatePulse();
    updateTexts();
    updateOverhang();
    update();
    underlay_->update();
}

void RecordButton::setKeyEnabled(bool enabled) {
    keyEnabled_ = enabled;
    updateOverhang();
    update();
    underlay_->update();
}

void RecordButton::setReduceMotion(bool reduce) {
    reduceMotion_ = reduce;
    updatePulse();
    updateOverhang();
    update();
    underlay_->update();
}

void RecordButton::setLevel(float level) {
    if (!recording_) {
        return;
    }
    rawLevel_ = level;
    const double now = glowRadius();
    // The glow is drawn in half-point steps: a level that moves it less repaints nothing.
    if (halfPoints(now) != drawnGlow_) {
        underlay_->updateOwnerRect(glowRect(std::max(drawnGlow_ / 2.0, now)));
        drawnGlow_ = halfPoints(now);
    }
    // The level's repaint carries a ring step too, so the two share one frame on screen; the
    // ring's own steps fill in between.
    if (pulsing_ && !ringParked_) {
        stepRing();
    }
}

void RecordButton::updateTexts() {
    const QString text = recording_ ? tr("Stop recording") : tr("Start recording");
    setToolTip(text);
    setAccessibleName(text);
    setText(recording_ ? tr("Stop") : tr("Record"));
}

void RecordButton::updatePulse() {
    // The ring sets the pulse going when it appears and clears it when it goes.
    const bool ring = pulseRingVisible();
    if (ring == pulsing_) {
        return;
    }
    pulsing_ = ring;
    if (pulsing_) {
        pulseStart_ = clock_->now();
        stepRing();
    }
    underlay_->update();
}

void RecordButton::stepRing() {
    if (!pulsing_) {
        return;
    }
    if (!ConsoleClock::isSeen(this)) {
        ringParked_ = true;  // the window's repaint on its return steps it again
        return;
    }
    ringParked_ = false;
    const double radius = keyDiameter / 2 * pulseScale();
    const long drawnRadius = quarterPoints(radius);
    const long drawnAlpha = std::lround(pulseOpacity() * 255.0);
    if (drawnRadius != drawnRingRadius_ || drawnAlpha != drawnRingAlpha_) {
        if (press_.value() != 1.0) {
            underlay_->update();  // scaled by the press: simply all of it
        } else {
            // One rectangle around the old and new ring: a plain rectangular clip keeps Qt's
            // raster engine on its direct copies, where a ring-shaped region would send every
            // layer through span blending.
            const double old = drawnRingRadius_ / 4.0;
            const double outer = std::max(old, radius) + kRingWidth * (1 + kRingGrowth) + 1.0;
            const QPointF center = keyRect().center();
            underlay_->updateOwnerRect(
                QRectF(center.x() - outer, center.y() - outer, 2 * outer, 2 * outer));
        }
        drawnRingRadius_ = drawnRadius;
        drawnRingAlpha_ = drawnAlpha;
    }
    scheduleRingStep(clock_->now() + std::chrono::nanoseconds(1'000'000'000 / ringFramesPerSecond));
}

void RecordButton::scheduleRingStep(ConsoleClock::Duration deadline) {
    // A newer schedule replaces the older one, whose deadline then passes doing nothing.
    const auto generation = ++ringGeneration_;
    clock_->callAt(deadline, this, [this, generation] {
        if (generation == ringGeneration_) {
            stepRing();
        }
    });
}

void RecordButton::setPressed(bool pressed) {
    if (pressed == pressed_) {
        return;
    }
    pressed_ = pressed;
    press_.animateTo(pressed ? pressedScale : 1.0, Theme::recordPress());
    startMotion();
}

void RecordButton::startMotion() {
    if (!clock_) {
        return;
    }
    lastFrame_ = clock_->now();
    clock_->requestFrame();
}

void RecordButton::advance() {
    const bool pressMoving = press_.isMoving();
    if (!glyph_.isMoving() && !pressMoving) {
        return;
    }
    const auto now = clock_->now();
    const double seconds = std::chrono::duration<double>(now - lastFrame_).count();
    lastFrame_ = now;
    const bool glyphMoves = glyph_.step(seconds);
    const bool pressMoves = press_.step(seconds);
    if (glyphMoves || pressMoves) {
        clock_->requestFrame();
    }
    update();
    if (pressMoving) {
        underlay_->update();  // the press scales the glow and ring too
    }
}

bool RecordButton::hitButton(const QPoint& pos) const {
    return rect().contains(pos);
}

void RecordButton::mousePressEvent(QMouseEvent* event) {
    if (event->button() == Qt::LeftButton && hitButton(event->position().toPoint())) {
        setPressed(true);
    }
    QAbstractButton::mousePressEvent(event);
}

void RecordButton::mouseReleaseEvent(QMouseEvent* event) {
    if (event->button() == Qt::LeftButton) {
        setPressed(false);
    }
    QAbstractButton::mouseReleaseEvent(event);
}

void RecordButton::focusInEvent(QFocusEvent* event) {
    // Only a key press that brought the focus here shows the ring; a window that opens doesn't.
    const Qt::FocusReason reason = event->reason();
    keyboardFocus_ = reason == Qt::TabFocusReason || reason == Qt::BacktabFocusReason ||
                     reason == Qt::ShortcutFocusReason;
    QAbstractButton::focusInEvent(event);
}

void RecordButton::focusOutEvent(QFocusEvent* event) {
    keyboardFocus_ = false;
    QAbstractButton::focusOutEvent(event);
}

void RecordButton::applyPressScale(QPainter& painter) const {
    const QPointF center = QRectF(rect()).center();
    const double scale = pressScale();
    painter.translate(center);
    painter.scale(scale, scale);
    painter.translate(-center);
}

void RecordButton::paintUnderlay(QPainter& painter) const {
    applyPressScale(painter);
    const QPointF center = keyRect().center();
    const double radius = keyDiameter / 2;
    if (pulseRingVisible()) {
        const QImage& ring =
            ringImage(quarterPoints(radius * pulseScale()), painter.device()->devicePixelRatioF());
        const double half = ring.width() / ring.devicePixelRatio() / 2.0;
        painter.setOpacity(0.55 * pulseOpacity());
        painter.drawImage(QPointF(center.x() - half, center.y() - half), ring);
        painter.setOpacity(1.0);
    }
    SoftShadow::paintDisc(painter, center + QPointF(0, kGlowOffsetY), radius, glowRadius(),
                          Theme::withOpacity(Theme::signalRed(), glowOpacity()));
}

const QImage& RecordButton::ringImage(long quarterRadius, qreal ratio) const {
    if (ratio != ringRatio_) {
        rings_.clear();
        ringRatio_ = ratio;
    }
    QImage& ring = rings_[quarterRadius];
    if (ring.isNull()) {
        const double radius = quarterRadius / 4.0;
        const double width = kRingWidth * radius / (keyDiameter / 2);
        const double half = radius + width / 2 + 1.0;
        const int pixels = static_cast<int>(std::ceil(2 * half * ratio));
        ring = QImage(pixels, pixels, QImage::Format_ARGB32_Premultiplied);
        ring.setDevicePixelRatio(ratio);
        ring.fill(Qt::transparent);
        QPainter painter(&ring);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(QPen(Theme::signalRed(), width));
        const double middle = pixels / ratio / 2.0;
        painter.drawEllipse(QPointF(middle, middle), radius, radius);
    }
    return ring;
}

void RecordButton::paintEvent(QPaintEvent*) {
    if (ringParked_) {
        ringParked_ = false;
        scheduleRingStep(clock_->now());
    }
    QPainter painter(this);
    if (glyph_.isMoving() || press_.isMoving()) {
        paintKey(painter);
        return;
    }
    // Settled, the key is the same picture frame after frame while the ring and glow move
    // around it; it is drawn again only when its looks change.
    const KeyLooks looks{glyphProgress(),
                         press_.value(),
                         keyboardFocus_ && hasFocus(),
                         text(),
                         Theme::secondary(palette()),
                         devicePixelRatioF(),
                         size()};
    if (keyPicture_.isNull() || !(looks == keyLooks_)) {
        keyPicture_ = QPixmap(size() * devicePixelRatioF());
        keyPicture_.setDevicePixelRatio(devicePixelRatioF());
        keyPicture_.fill(Qt::transparent);
        QPainter picture(&keyPicture_);
        paintKey(picture);
        keyLooks_ = looks;
    }
    painter.drawPixmap(QPointF(0, 0), keyPicture_);
}

void RecordButton::paintKey(QPainter& painter) const {
    painter.setRenderHint(QPainter::Antialiasing);
    applyPressScale(painter);

    const QRectF key = keyRect();
    const QPointF center = key.center();
    const double radius = keyDiameter / 2;

    QLinearGradient body(key.topLeft(), key.bottomLeft());
    body.setColorAt(0.0, Theme::recordTop());
    body.setColorAt(1.0, Theme::recordBottom());
    painter.setPen(Qt::NoPen);
    painter.setBrush(body);
    painter.drawEllipse(key);

    QLinearGradient rim(key.topLeft(), key.bottomLeft());
    rim.setColorAt(0.0, QColor::fromRgbF(1, 1, 1, 0.4f));
    rim.setColorAt(1.0, QColor::fromRgbF(1, 1, 1, 0.05f));
    painter.setPen(QPen(QBrush(rim), 1.0));
    painter.setBrush(Qt::NoBrush);
    painter.drawEllipse(center, radius - 0.5, radius - 0.5);

    const double g = glyphProgress();
    const double readyOpacity = std::clamp(1.0 - g, 0.0, 1.0);
    if (readyOpacity > 0.0) {
        const double s = std::max(1.0 - 0.5 * g, 0.0);
        painter.setOpacity(readyOpacity);
        painter.setPen(QPen(QColor::fromRgbF(1, 1, 1, 0.92f), 3.5 * s));
        painter.drawEllipse(center, (18.0 - 1.75) * s, (18.0 - 1.75) * s);
    }
    const double stopOpacity = std::clamp(g, 0.0, 1.0);
    if (stopOpacity > 0.0) {
        const double side = 22.0 * std::max(0.5 + 0.5 * g, 0.0);
        const double corner = 4.5 * side / 22.0;
        painter.setOpacity(stopOpacity);
        painter.setPen(Qt::NoPen);
        painter.setBrush(QColor::fromRgbF(1, 1, 1, 0.95f));
        painter.drawRoundedRect(QRectF(center.x() - side / 2, center.y() - side / 2, side, side),
                                corner, corner);
    }
    painter.setOpacity(1.0);

    if (keyboardFocus_ && hasFocus()) {
        // Inside the key's edge: the widget can't paint beyond its own rectangle here.
        painter.setPen(QPen(Theme::withOpacity(Theme::consoleAmber(), 0.9), 1.5));
        painter.setBrush(Qt::NoBrush);
        painter.drawEllipse(center, radius - 2.5, radius - 2.5);
    }

    painter.setFont(Theme::recordCaptionFont());
    painter.setPen(Theme::secondary(palette()));
    const QRectF caption(0, key.bottom() + captionSpacing, width(),
                         height() - key.bottom() - captionSpacing);
    painter.drawText(caption, Qt::AlignHCenter | Qt::AlignTop, text());
}

}  // namespace bw
