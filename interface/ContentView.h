#pragma once

#include <QWidget>
#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "engine/RecordingSource.h"
#include "interface/ConsoleClock.h"
#include "interface/SpringAnimation.h"

class QAbstractButton;
class QLabel;
class QLineEdit;
class QPushButton;
class QVBoxLayout;

namespace bw {

class AppIconCache;
class AppState;
class AudioLevelTracker;
class ConsoleClock;
class ConsoleSurface;
class MasterLevelMeter;
class RecordButton;
class RecordingTimer;
class SourceRowView;
class TimecodeLCDView;

/// The main window's content in one column: the dark console header (record key, timecode,
/// status line, monitor switch, master meter, message lines), the list of everything that can
/// be recorded in three sections with a debounced search over the applications, and a footer
/// with the way to the recordings. It reads `AppState` and calls it; it keeps only the search.
/// GUI thread only.
class ContentView : public QWidget {
    Q_OBJECT

public:
    static constexpr auto searchDebounce = std::chrono::milliseconds(250);
    /// Opens a window of the program by its id ("onboarding").
    using OpenWindow = std::function<void(const QString& id)>;

    /// Everything given must outlive the view; `clock` (the time of the search pause and of the
    /// widgets' motion) is the system one by default.
    ContentView(AppState& state, AppIconCache& icons, AudioLevelTracker& levels,
                RecordingTimer& timer, ConsoleClock* clock = nullptr, QWidget* parent = nullptr);

    void setOpenWindow(OpenWindow openWindow) { openWindow_ = std::move(openWindow); }
    /// The desktop asks for less motion: the record key, the rows and the selection hint change
    /// at once.
    void setReduceMotion(bool reduce);
    /// How far the selection hint's colour has come in: 0 none, 1 full.
    double selectionHintProgress() const { return selectionHint_.value(); }

    /// The status line's text (before the style upper-cases it), colour and weight.
    QString statusText() const;
    /// Shows `notice` in place of the status line's text until the recording that runs or starts
    /// now has ended; ignored while idle.
    void showStatusNotice(const QString& notice);
    QColor statusColor() const;
    bool statusBold() const;

    const QString& appFilter() const { return appFilter_; }
    const QString& debouncedFilter() const { return debouncedFilter_; }
    const std::vector<RecordingSource>& filteredApps() const { return filteredApps_; }
    /// Sets the search text as typing does.
    void setAppFilter(const QString& text);

    RecordButton* recordButton() const { return recordButton_; }
    TimecodeLCDView* timecode() const { return timecode_; }
    QLabel* statusLabel() const { return status_; }
    QAbstractButton* monitorSwitch() const { return monitorSwitch_; }
    MasterLevelMeter* masterMeter() const { return masterMeter_; }
    ConsoleSurface* header() const { return header_; }
    QLineEdit* searchField() const { return searchField_; }
    QLabel* noInputsLabel() const { return noInputs_; }
    QPushButton* recordingsFolderButton() const { return folderButton_; }
    QPushButton* lastRecordingButton() const { return lastRecordingButton_; }
    /// The message lines in order, top first; each has the object name "errorLine",
    /// "warningLine" or "savedLine" and a "dismissButton" child.
    std::vector<QWidget*> messageLines() const;
    SourceRowView* systemRow() const { return systemRow_; }
    /// The rows of a section in their order.
    std::vector<SourceRowView*> appRows() const { return appRows_; }
    std::vector<SourceRowView*> micRows() const { return micRows_; }

protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

private:
    QWidget* buildHeader();
    QWidget* buildList();
    QWidget* buildFooter();
    void updateTransport();
    void moveSelectionHint();
    void advanceSelectionHint();
    void updateMessages();
    void updateFooter();
    void setDebouncedFilter(const QString& text);
    void rebuildFilteredApps();
    void syncRows(const std::vector<RecordingSource>& sources, std::vector<SourceRowView*>& rows,
                  QVBoxLayout* layout);
    SourceRowView* makeRow(const RecordingSource& source, QWidget* parent);
    void onRecordPressed();

    AppState& state_;
    AppIconCache& icons_;
    AudioLevelTracker& levels_;
    RecordingTimer& timer_;
    ConsoleClock* clock_;
    OpenWindow openWindow_;
    QString statusNotice_;
    bool reduceMotion_ = false;
    SpringAnimation selectionHint_;
    ConsoleClock::Duration hintFrame_{};
    QString appFilter_;
    QString debouncedFilter_;
    std::vector<RecordingSource> filteredApps_;
    quint64 searchGeneration_ = 0;
    bool appeared_ = false;

    ConsoleSurface* header_ = nullptr;
    RecordButton* recordButton_ = nullptr;
    TimecodeLCDView* timecode_ = nullptr;
    QLabel* status_ = nullptr;
    QAbstractButton* monitorSwitch_ = nullptr;
    MasterLevelMeter* masterMeter_ = nullptr;
    QWidget* messages_ = nullptr;
    QVBoxLayout* messagesLayout_ = nullptr;
    QLineEdit* searchField_ = nullptr;
    QLabel* noInputs_ = nullptr;
    SourceRowView* systemRow_ = nullptr;
    QVBoxLayout* appRowsLayout_ = nullptr;
    QVBoxLayout* micRowsLayout_ = nullptr;
    std::vector<SourceRowView*> appRows_;
    std::vector<SourceRowView*> micRows_;
    QPushButton* folderButton_ = nullptr;
    QPushButton* lastRecordingButton_ = nullptr;
};

}  // namespace bw
