#include "interface/TimecodeLCDView.h"

#include <QFontMetricsF>
#include <QPainter>
#include <algorithm>
#include <cmath>

#include "interface/ConsoleAccessibility.h"
#include "interface/GlowUnderlay.h"
#include "interface/SoftShadow.h"
#include "interface/Theme.h"

namespace bw {

namespace {
const int kGlowReach = static_cast<int>(std::ceil(SoftShadow::reach(TimecodeLCDView::glowRadius)));
// How far a rolling digit travels, as a share of the line height.
constexpr double kRollTravel = 0.7;
}  // namespace

TimecodeLCDView::TimecodeLCDView(QWidget* parent)
    : QWidget(parent),
      formatted_(QStringLiteral("0:00:00")),
      compact_(QStringLiteral("00:00")),
      underlay_(
          new GlowUnderlay(this, kGlowReach, [this](QPainter& painter) { paintGlow(painter); })) {
    ConsoleAccessibility::install();
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
    setFont(Theme::timecodeFont());
    setAccessibleName(tr("Elapsed time"));
    setClock(ConsoleClock::system());
}

void TimecodeLCDView::setClock(ConsoleClock* clock) {
    if (clock_) {
        disconnect(clock_, &ConsoleClock::frame, this, nullptr);
    }
    clock_ = clock;
    connect(clock_, &ConsoleClock::frame, this, &TimecodeLCDView::advance);
}

QColor TimecodeLCDView::digitColor() const {
    return recording_ ? Theme::consoleAmber()
                      : Theme::withOpacity(Theme::consoleAmber(), unlitOpacity);
}

double TimecodeLCDView::rollProgress() const {
    if (!rolling_) {
        return 1.0;
    }
    const double elapsed = std::chrono::duration<double>(clock_->now() - rollStart_).count();
    return std::clamp(elapsed / Theme::digitRollDuration, 0.0, 1.0);
}

QSize TimecodeLCDView::sizeHint() const {
    const QFontMetricsF metrics(font());
    return QSize(static_cast<int>(std::ceil(metrics.horizontalAdvance(formatted_))),
                 static_cast<int>(std::ceil(metrics.height())));
}

void TimecodeLCDView::setRecording(bool recording) {
    recording_ = recording;
    update();
    underlay_->update();
}

void TimecodeLCDView::setFormattedElapsed(const QString& text) {
    if (text == formatted_) {
        return;
    }
    const bool widthChanges = text.size() != formatted_.size();
    previous_ = formatted_;
    formatted_ = text;
    // A roll nobody sees would only spend frames; the digits simply stand in place.
    rolling_ = ConsoleClock::isSeen(this);
    rollStart_ = clock_->now();
    if (rolling_) {
        clock_->requestFrame();
    }
    if (widthChanges) {
        updateGeometry();
    }
    update();
    underlay_->update();
}

void TimecodeLCDView::setCompactElapsed(const QString& text) {
    if (text == compact_) {
        return;
    }
    compact_ = text;
    ConsoleAccessibility::notifyValueChanged(this);
}

void TimecodeLCDView::advance() {
    if (!rolling_) {
        return;
    }
    if (rollProgress() >= 1.0) {
        rolling_ = false;
    } else {
        clock_->requestFrame();
    }
    update();
    if (isGlowing()) {
        underlay_->update();
    }
}

void TimecodeLCDView::paintDigits(QPainter& painter, const QColor& color) const {
    painter.save();
    painter.setRenderHint(QPainter::TextAntialiasing);
    painter.setFont(font());
    painter.setPen(color);
    const QFontMetricsF metrics(font());
    const double advance = metrics.horizontalAdvance(QLatin1Char('0'));
    const double baseline = metrics.ascent();
    const double travel = metrics.height() * kRollTravel;
    const double t = Theme::easeOut(rollProgress());
    // Rolling digits slide through the line as through a window.
    painter.setClipRect(QRectF(rect()), Qt::IntersectClip);

    // Right-aligned, so a text that grows by an hour digit keeps its seconds in place.
    const qsizetype count = formatted_.size();
    const qsizetype offset = count - previous_.size();
    for (qsizetype i = 0; i < count; ++i) {
        const double x = static_cast<double>(i) * advance;
        const QChar now = formatted_.at(i);
        const qsizetype old = i - offset;
        const bool changed = rolling_ && (old < 0 || previous_.at(old) != now);
        if (!changed) {
            painter.setOpacity(1.0);
            painter.drawText(QPointF(x, baseline), QString(now));
            continue;
        }
        if (old >= 0) {
            painter.setOpacity(1.0 - t);
            painter.drawText(QPointF(x, baseline - travel * t), QString(previous_.at(old)));
        }
        painter.setOpacity(t);
        painter.drawText(QPointF(x, baseline + travel * (1.0 - t)), QString(now));
    }
    painter.restore();
}

const QImage& TimecodeLCDView::glowOf(const QString& text) {
    const qreal ratio = devicePixelRatioF();
    // Most recently used first, so the two texts of a roll both stay.
    for (Glow& glow : glows_) {
        if (glow.text == text && glow.ratio == ratio && !glow.image.isNull()) {
            std::swap(glow, glows_[0]);
            return glows_[0].image;
        }
    }
    // The digits standing still, on a layer reaching as far as the glow, blurred once.
    const QFontMetricsF metrics(font());
    const QSize size(static_cast<int>(std::ceil(metrics.horizontalAdvance(text))) + 2 * kGlowReach,
                     height() + 2 * kGlowReach);
    QImage layer((QSizeF(size) * ratio).toSize(), QImage::Format_ARGB32_Premultiplied);
    layer.setDevicePixelRatio(ratio);
    layer.fill(Qt::transparent);
    {
        QPainter painter(&layer);
        painter.setRenderHint(QPainter::TextAntialiasing);
        painter.setFont(font());
        painter.setPen(Theme::consoleAmber());
        const double advance = metrics.horizontalAdvance(QLatin1Char('0'));
        for (qsizetype i = 0; i < text.size(); ++i) {
            painter.drawText(QPointF(kGlowReach + static_cast<double>(i) * advance,
                                     kGlowReach + metrics.ascent()),
                             QString(text.at(i)));
        }
    }
    glows_[1] = std::move(glows_[0]);
    glows_[0] = Glow{text, ratio,
                     SoftShadow::blurred(layer, glowRadius,
                                         Theme::withOpacity(Theme::consoleAmber(), glowOpacity))};
    return glows_[0].image;
}

void TimecodeLCDView::paintGlow(QPainter& painter) {
    if (!isGlowing()) {
        return;
    }
    // Right-aligned like the digits.
    const auto place = [this](const QImage& glow) {
        return QPointF(width() - glow.width() / glow.devicePixelRatio() + kGlowReach, -kGlowReach);
    };
    const double t = rolling_ ? Theme::easeOut(rollProgress()) : 1.0;
    if (t < 1.0 && !previous_.isEmpty()) {
        const QImage& before = glowOf(previous_);
        painter.setOpacity(1.0 - t);
        painter.drawImage(place(before), before);
    }
    const QImage& now = glowOf(formatted_);
    painter.setOpacity(t);
    painter.drawImage(place(now), now);
    painter.setOpacity(1.0);
}

void TimecodeLCDView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    if (rolling_) {
        paintDigits(painter, digitColor());
        return;
    }
    // Standing digits are repainted whenever the key's breathing glow sweeps over them: a kept
    // picture spares laying out the text each time.
    const qreal ratio = devicePixelRatioF();
    if (line_.isNull() || lineText_ != formatted_ || lineColor_ != digitColor() ||
        line_.devicePixelRatio() != ratio || line_.size() != size() * ratio) {
        line_ = QPixmap(size() * ratio);
        line_.setDevicePixelRatio(ratio);
        line_.fill(Qt::transparent);
        QPainter picture(&line_);
        paintDigits(picture, digitColor());
        lineText_ = formatted_;
        lineColor_ = digitColor();
    }
    painter.drawPixmap(QPointF(0, 0), line_);
}

}  // namespace bw
