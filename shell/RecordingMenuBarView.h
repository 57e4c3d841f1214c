#pragma once

#include <QFrame>
#include <functional>

class QLabel;
class QPushButton;

namespace bw {

class AppState;
class AudioLevelTracker;
class MenuBarLevelMeter;
class RecordingTimer;

/// The tray item's panel, 300 wide: a header with the red lamp, "Recording" and the elapsed
/// time; the mix's level; "Open Brightwave Record" and "Stop", which Return presses too.
/// Everything given must outlive it. GUI thread only.
class RecordingMenuBarView : public QFrame {
    Q_OBJECT

public:
    static constexpr int kWidth = 300;
    static constexpr int kMargin = 14;
    static constexpr int kRowSpacing = 12;

    /// Opens a window of the program by its id and brings the program to the front.
    using OpenWindow = std::function<void(const QString& id)>;

    RecordingMenuBarView(AppState& state, RecordingTimer& timer, AudioLevelTracker& levels,
                         OpenWindow openWindow, QWidget* parent = nullptr);

    QLabel* timeLabel() const { return time_; }
    MenuBarLevelMeter* levelMeter() const { return meter_; }
    QPushButton* openButton() const { return openButton_; }
    QPushButton* stopButton() const { return stopButton_; }

signals:
    /// A button was used; the owner closes the panel, as a popover closes after an action.
    void finished();

private:
    void openMainWindow();
    void stop();

    AppState& state_;
    RecordingTimer& timer_;
    OpenWindow openWindow_;
    QLabel* time_;
    MenuBarLevelMeter* meter_;
    QPushButton* openButton_;
    QPushButton* stopButton_;
};

}  // namespace bw
