#pragma once

#include <QObject>
#include <QPointer>
#include <functional>
#include <memory>

class QSystemTrayIcon;

namespace bw {

class AppState;
class AudioLevelTracker;
class MenuBarLabelView;
class RecordingMenuBarView;
class RecordingTimer;

/// The tray item of a running recording (a StatusNotifierItem through `QSystemTrayIcon`): the
/// record symbol with the elapsed time as its tooltip and accessible name, and a click that
/// opens `RecordingMenuBarView` as a popup. It is inserted exactly while `isRecording` is true,
/// so it exists neither while a recording starts nor while it stops; nothing else can insert or
/// remove it. Everything given must outlive it. GUI thread only.
class MenuBarExtra : public QObject {
    Q_OBJECT

public:
    using OpenWindow = std::function<void(const QString& id)>;

    MenuBarExtra(AppState& state, RecordingTimer& timer, AudioLevelTracker& levels,
                 OpenWindow openWindow, QObject* parent = nullptr);
    ~MenuBarExtra() override;

    bool isInserted() const { return trayIcon_ != nullptr; }
    /// The item while inserted, else null.
    QSystemTrayIcon* trayIcon() const { return trayIcon_.get(); }
    MenuBarLabelView* label() const { return label_.get(); }
    /// The open panel, else null.
    RecordingMenuBarView* panel() const;

    /// Opens the panel below `anchor` (global coordinates), as a click on the item does; does
    /// nothing while the item isn't inserted.
    void openPanel(const QPoint& anchor);
    void closePanel();

signals:
    void insertedChanged(bool inserted);

private:
    void sync();
    void insert();
    void remove();
    void updateToolTip();

    AppState& state_;
    RecordingTimer& timer_;
    AudioLevelTracker& levels_;
    OpenWindow openWindow_;
    std::unique_ptr<QSystemTrayIcon> trayIcon_;
    std::unique_ptr<MenuBarLabelView> label_;
    QPointer<RecordingMenuBarView> panel_;
};

}  // namespace bw
