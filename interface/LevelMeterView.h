#pragma once

#include <QWidget>

namespace bw {

/// A plain thin level bar without memory, for small places such as the tray panel: a faint
/// capsule track and a lit capsule level × width long, graded green, green, yellow, red over its
/// own length, so even a short bar ends in red. 5 high, any width; hidden from assistive
/// technology (the time next to it speaks). GUI thread only.
class LevelMeterView : public QWidget {
    Q_OBJECT
    Q_PROPERTY(float level READ level WRITE setLevel)
public:
    static constexpr int barHeight = 5;

    explicit LevelMeterView(QWidget* parent = nullptr);

    float level() const { return level_; }

    /// Width of the lit capsule for the current level and width: width × min(level, 1), at least 0.
    double litWidth() const;

    QSize sizeHint() const override { return QSize(120, barHeight); }
    QSize minimumSizeHint() const override { return QSize(10, barHeight); }

public slots:
    void setLevel(float level);

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    float level_ = 0.0f;
};

}  // namespace bw
