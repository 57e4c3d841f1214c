#include "interface/SegmentedMeter.h"

#include <QPainter>
#include <QPainterPath>
#include <algorithm>
#include <cmath>

#include "interface/ConsoleAccessibility.h"
#include "interface/GlowUnderlay.h"
#include "interface/SoftShadow.h"
#include "interface/Theme.h"

namespace bw {

namespace {
constexpr double kLampGlowRadius = 3.0;
}  // namespace

SegmentedMeter::SegmentedMeter(QWidget* parent)
    : QWidget(parent),
      clock_(ConsoleClock::system()),
      underlay_(new GlowUnderlay(this, SoftShadow::reach(kLampGlowRadius),
                                 [this](QPainter& painter) { paintLampGlow(painter); })) {
    ConsoleAccessibility::install();
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    setAccessibleName(tr("Recording level"));
}

int SegmentedMeter::accessiblePercent() const {
    return static_cast<int>(std::min(level_, 1.0f) * 100.0f);
}

QString SegmentedMeter::accessibleValue() const {
    QString text = tr("%1 percent").arg(accessiblePercent());
    if (clipped_) {
        text += tr(", clipping");
    }
    return text;
}

std::pair<long, long> SegmentedMeter::shown() const {
    const int n = segmentCount(barRect().width());
    const long lit = std::lround(std::min(level_, 1.0f) * static_cast<float>(n));
    const long peak =
        peak_ > 0.02f
            ? std::min(static_cast<long>(std::floor(std::min(peak_, 1.0f) * static_cast<float>(n))),
                       static_cast<long>(n - 1))
            : -1;
    return {lit, peak < lit ? -1 : peak};
}

int SegmentedMeter::segmentCount(double width) {
    const double pitch = segmentWidth + segmentGap;
    const double count = std::floor((width + segmentGap) / pitch);
    return count >= 1.0 ? static_cast<int>(std::min(count, 100000.0)) : 1;
}

std::vector<SegmentedMeter::Segment> SegmentedMeter::segments(double width, double height,
                                                              float level, float peak) {
    const int n = segmentCount(width);
    const double pitch = segmentWidth + segmentGap;
    const auto litCount = std::lround(std::min(level, 1.0f) * static_cast<float>(n));
    const auto peakIndex =
        std::min(static_cast<long>(std::floor(std::min(peak, 1.0f) * static_cast<float>(n))),
                 static_cast<long>(n - 1));
    std::vector<Segment> result;
    result.reserve(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i) {
        Segment segment;
        segment.rect = QRectF(i * pitch, 0.0, segmentWidth, height);
        segment.lit = i < litCount || (peak > 0.02f && i == peakIndex);
        if (segment.lit) {
            const float p = static_cast<float>(i) / static_cast<float>(std::max(n - 1, 1));
            segment.color = p > 0.85f  ? Theme::signalRed()
                            : p > 0.6f ? Theme::consoleAmber()
                                       : Theme::meterGreen();
        } else {
            segment.color = QColor::fromRgbF(1, 1, 1, 0.08f);
        }
        result.push_back(segment);
    }
    return result;
}

QRectF SegmentedMeter::barRect() const {
    const QRectF row(rect());
    const double width = std::max(row.width() - lampSpacing - lampDiameter, 0.0);
    return QRectF(0, row.center().y() - barHeight / 2, width, barHeight);
}

QRectF SegmentedMeter::lampRect() const {
    const QRectF row(rect());
    return QRectF(row.right() - lampDiameter, row.center().y() - lampDiameter / 2, lampDiameter,
                  lampDiameter);
}

QSize SegmentedMeter::sizeHint() const {
    return QSize(240, static_cast<int>(barHeight));
}

QSize SegmentedMeter::minimumSizeHint() const {
    return QSize(static_cast<int>(segmentWidth + lampSpacing + lampDiameter),
                 static_cast<int>(barHeight));
}

void SegmentedMeter::setLevel(float level) {
    if (level == level_) {
        return;
    }
    level_ = level;
    peak_ = std::max(level, peak_ - peakFallPerChange);
    if (level >= clipLevel) {
        // A later overload moves the deadline; the earlier timer then finds it changed.
        const auto deadline = clock_->now() + clipHold;
        clipDeadline_ = deadline;
        setClipped(true);
        clock_->callAt(deadline, this, [this, deadline] {
            if (clipDeadline_ == deadline) {
                setClipped(false);
            }
        });
    }
    if (level <= 0.001f && peak_ <= 0.04f) {
        peak_ = 0.0f;
    }
    if (shown() != painted_) {
        update(barRect().toAlignedRect());
    }
    ConsoleAccessibility::notifyValueChanged(this);
}

void SegmentedMeter::setClipped(bool clipped) {
    if (clipped == clipped_) {
        return;
    }
    clipped_ = clipped;
    update(lampRect().toAlignedRect().adjusted(-1, -1, 1, 1));
    const double glow = SoftShadow::reach(kLampGlowRadius) + 1.0;
    underlay_->updateOwnerRect(lampRect().adjusted(-glow, -glow, glow, glow));
    ConsoleAccessibility::notifyValueChanged(this);
    emit clippedChanged(clipped);
}

void SegmentedMeter::paintEvent(QPaintEvent*) {
    painted_ = shown();
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);

    const QRectF bar = barRect();
    painter.save();
    painter.translate(bar.topLeft());
    for (const auto& segment : segments(bar.width(), bar.height(), level_, peak_)) {
        painter.setBrush(segment.color);
        painter.drawRoundedRect(segment.rect, 1.0, 1.0);
    }
    painter.restore();

    painter.setBrush(clipped_ ? Theme::signalRed() : QColor::fromRgbF(1, 1, 1, 0.1f));
    painter.drawEllipse(lampRect());
}

void SegmentedMeter::paintLampGlow(QPainter& painter) const {
    if (clipped_) {
        SoftShadow::paintDisc(painter, lampRect().center(), lampDiameter / 2, kLampGlowRadius,
                              Theme::withOpacity(Theme::signalRed(), 0.8));
    }
}

}  // namespace bw
