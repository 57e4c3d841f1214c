#pragma once

#include <QColor>
#include <QRectF>
#include <QWidget>
#include <utility>
#include <vector>

#include "interface/ConsoleClock.h"

class QPainter;

namespace bw {

class GlowUnderlay;

/// The console's LED bar: a row of segments lit up to the level, one segment held at the peak,
/// and a clip lamp at the right end.
///
/// Levels are linear peaks, 0…1 (1 is full scale; more is drawn as 1). The peak is the widget's
/// own memory: each change of the level pulls it down by 0.03, not each second. A level of 0.98
/// or more lights the clip lamp, which goes out 2.5 s after the last such level, timed by the
/// widget's `ConsoleClock`. The widget is the row itself, 10 high; the lamp's glow spills onto
/// the panel around it without taking room (`GlowUnderlay`). A new level repaints the bar only
/// when a segment or the held peak changes. GUI thread only.
class SegmentedMeter : public QWidget {
    Q_OBJECT
    Q_PROPERTY(float level READ level WRITE setLevel)
    Q_PROPERTY(bool clipped READ isClipped NOTIFY clippedChanged)
    Q_PROPERTY(QString accessibleValue READ accessibleValue)
    Q_PROPERTY(int accessiblePercent READ accessiblePercent)
public:
    /// One segment as drawn: where, whether lit, and in which colour.
    struct Segment {
        QRectF rect;
        bool lit = false;
        QColor color;
    };

    static constexpr double segmentWidth = 5.0;
    static constexpr double segmentGap = 3.0;
    static constexpr double barHeight = 10.0;
    static constexpr double lampDiameter = 7.0;
    static constexpr double lampSpacing = 8.0;
    static constexpr float clipLevel = 0.98f;
    static constexpr float peakFallPerChange = 0.03f;
    static constexpr std::chrono::milliseconds clipHold{2500};

    explicit SegmentedMeter(QWidget* parent = nullptr);

    /// The clock for the clip lamp's hold; must outlive the widget. By default the system one.
    void setClock(ConsoleClock* clock) { clock_ = clock; }

    float level() const { return level_; }
    float peak() const { return peak_; }
    bool isClipped() const { return clipped_; }

    /// "N percent", N the level in percent cut to a whole number (at most 100), then
    /// ", clipping" while the lamp is lit.
    QString accessibleValue() const;
    /// min(level, 1) × 100 cut to a whole number: the value assistive technology reads.
    int accessiblePercent() const;

    /// How many segments fit a bar `width` wide: the whole part of (width + gap) / 8, at least 1.
    static int segmentCount(double width);

    /// The segments of a bar of `width` × `height` at `level` with `peak` held, left to right.
    /// A segment is lit below round(level × N) or at the peak's index while the peak is above
    /// 0.02; its colour follows its place: green, amber past 60 %, red past 85 % of the bar.
    static std::vector<Segment> segments(double width, double height, float level, float peak);

    /// The bar's rectangle in widget coordinates (the row less the lamp).
    QRectF barRect() const;
    /// The clip lamp's rectangle in widget coordinates.
    QRectF lampRect() const;

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

public slots:
    /// Takes a new level. An equal value changes nothing; a different one moves the peak and may
    /// light the clip lamp.
    void setLevel(float level);

signals:
    void clippedChanged(bool clipped);

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    void setClipped(bool clipped);
    void paintLampGlow(QPainter& painter) const;
    /// What the bar shows at a width: lit segments and the held peak's index (or -1).
    std::pair<long, long> shown() const;

    ConsoleClock* clock_;
    GlowUnderlay* underlay_;
    std::pair<long, long> painted_{-1, -1};
    float level_ = 0.0f;
    float peak_ = 0.0f;
    bool clipped_ = false;
    ConsoleClock::Duration clipDeadline_{};
};

}  // namespace bw
