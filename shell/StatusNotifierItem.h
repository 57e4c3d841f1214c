#pragma once

#include <QDBusConnection>
#include <QImage>
#include <QObject>
#include <QPoint>
#include <QString>

namespace bw {

class StatusNotifierItemExport;

/// A tray item of our own over D-Bus: the freedesktop StatusNotifierItem protocol
/// (`org.kde.StatusNotifierItem` at "/StatusNotifierItem" under a name
/// "org.kde.StatusNotifierItem-<pid>-<n>"), with the Ayatana label that GNOME's AppIndicator
/// extension, XFCE, MATE and Budgie draw beside the icon (`XAyatanaLabel`, its guide and
/// `XAyatanaNewLabel`). The item exists on the bus from construction to destruction; it registers
/// with the `org.kde.StatusNotifierWatcher` present then and again with every watcher that
/// appears later (a panel restarted). Icons go by theme name, with a drawn pixmap for hosts
/// whose theme lacks the name.
///
/// Thread: the GUI thread. D-Bus calls reach it through the event loop; nothing here blocks on
/// the bus (the watcher is called asynchronously).
class StatusNotifierItem : public QObject {
    Q_OBJECT

public:
    static constexpr const char* kObjectPath = "/StatusNotifierItem";
    static constexpr const char* kWatcherService = "org.kde.StatusNotifierWatcher";

    /// `id` names the program (the item's `Id`); `bus` is where it lives, the session bus for
    /// the program.
    StatusNotifierItem(const QString& id, QDBusConnection bus, QObject* parent = nullptr);
    ~StatusNotifierItem() override;

    void setTitle(const QString& title);
    /// The tooltip's title and its text.
    void setToolTip(const QString& title, const QString& text);
    /// The label beside the icon where the host draws one; `guide` is its widest form, so the
    /// host can keep the width steady as the text changes.
    void setLabel(const QString& label, const QString& guide);
    /// The icon by its freedesktop theme name, and the image hosts use without that name.
    void setIcon(const QString& themeName, const QImage& image);

signals:
    /// The host's primary action (a click), at the pointer's global position as the host gives
    /// it (0, 0 when unknown).
    void activated(const QPoint& at);
    /// The host's secondary action or context request; same position rule.
    void contextRequested(const QPoint& at);

private:
    friend class StatusNotifierItemExport;
    void registerWithWatcher();
    void emitOnBus(const char* signal);

    QDBusConnection bus_;
    QString id_;
    QString serviceName_;
    QString title_;
    QString toolTipTitle_;
    QString toolTipText_;
    QString label_;
    QString labelGuide_;
    QString iconName_;
    QImage iconImage_;
    StatusNotifierItemExport* export_ = nullptr;  // the protocol's face on the bus, a child
};

}  // namespace bw
