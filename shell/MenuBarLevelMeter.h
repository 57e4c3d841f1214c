#pragma once

#include <QWidget>

namespace bw {

class AudioLevelTracker;
class LevelMeterView;

/// The mix's level in the tray panel: a `LevelMeterView` that starts at 0 and takes each value
/// of the tracker's "master" stream from the next level step on (the stream replays nothing).
/// The tracker must outlive it. GUI thread only.
class MenuBarLevelMeter : public QWidget {
    Q_OBJECT

public:
    explicit MenuBarLevelMeter(AudioLevelTracker& levels, QWidget* parent = nullptr);

    float level() const { return level_; }
    LevelMeterView* meter() const { return meter_; }

private:
    void setLevel(float level);

    float level_ = 0.0f;
    LevelMeterView* meter_;
};

}  // namespace bw
