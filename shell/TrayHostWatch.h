#pragma once

#include <QDBusConnection>
#include <QObject>

namespace bw {

/// Whether the desktop shows tray items: a StatusNotifierWatcher on the bus that reports a
/// registered host (stock GNOME has none; its AppIndicator extension, KDE Plasma, XFCE, MATE and
/// Budgie have one). Follows watchers that come and go and hosts that register later.
///
/// Thread: the GUI thread. The answer is kept up to date from bus signals and asynchronous
/// reads, so `isAvailable` never blocks; right after construction it holds once the first read
/// has returned (a watcher found, its host not yet confirmed, counts as available).
class TrayHostWatch : public QObject {
    Q_OBJECT

public:
    explicit TrayHostWatch(QDBusConnection bus, QObject* parent = nullptr);

    bool isAvailable() const { return watcherPresent_ && hostRegistered_; }

signals:
    void availableChanged(bool available);

private slots:
    void readHost();

private:
    void setState(bool watcherPresent, bool hostRegistered);

    QDBusConnection bus_;
    bool watcherPresent_ = false;
    bool hostRegistered_ = false;
};

}  // namespace bw
