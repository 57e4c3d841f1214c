#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QPointer>
#include <functional>
#include <memory>

namespace bw {

class AppState;
class AudioLevelTracker;
class MenuBarLabelView;
class RecordingMenuBarView;
class RecordingTimer;
class StatusNotifierItem;

/// The tray item of a running recording (our `StatusNotifierItem` on `bus`): the record symbol
/// with the elapsed time as its label where the host draws one, and "Brightwave Record,
/// recording, " and the time as its title and tooltip everywhere; the host's click opens
/// `RecordingMenuBarView` as a popup. It is inserted exactly while `isRecording` is true, so it
/// exists neither while a recording starts nor while it stops; nothing else can insert or remove
/// it. Everything given must outlive it. GUI thread only.
class MenuBarExtra : public QObject {
    Q_OBJECT

public:
    using OpenWindow = std::function<void(const QString& id)>;

    MenuBarExtra(AppState& state, RecordingTimer& timer, AudioLevelTracker& levels,
                 OpenWindow openWindow, QDBusConnection bus, QObject* parent = nullptr);
    ~MenuBarExtra() override;

    bool isInserted() const { return item_ != nullptr; }
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
    void updateTime();

    AppState& state_;
    RecordingTimer& timer_;
    AudioLevelTracker& levels_;
    OpenWindow openWindow_;
    QDBusConnection bus_;
    std::unique_ptr<StatusNotifierItem> item_;
    std::unique_ptr<MenuBarLabelView> label_;
    QPointer<RecordingMenuBarView> panel_;
};

}  // namespace bw
