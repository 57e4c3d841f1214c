#include "shell/TrayHostWatch.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusServiceWatcher>
#include <QDBusVariant>

#include "shell/StatusNotifierItem.h"

namespace bw {
namespace {

const QString kWatcherPath = QStringLiteral("/StatusNotifierWatcher");

}  // namespace

TrayHostWatch::TrayHostWatch(QDBusConnection bus, QObject* parent)
    : QObject(parent), bus_(std::move(bus)) {
    if (!bus_.isConnected()) {
        return;
    }
    const QString service = QString::fromLatin1(StatusNotifierItem::kWatcherService);
    auto* watcher =
        new QDBusServiceWatcher(service, bus_, QDBusServiceWatcher::WatchForOwnerChange, this);
    connect(watcher, &QDBusServiceWatcher::serviceOwnerChanged, this,
            [this](const QString&, const QString&, const QString& newOwner) {
                setState(!newOwner.isEmpty(), false);
                if (!newOwner.isEmpty()) {
                    readHost();
                }
            });
    for (const char* signal : {"StatusNotifierHostRegistered", "StatusNotifierHostUnregistered"}) {
        bus_.connect(service, kWatcherPath, service, QString::fromLatin1(signal), this,
                     SLOT(readHost()));
    }
    readHost();
}

void TrayHostWatch::readHost() {
    QDBusMessage get = QDBusMessage::createMethodCall(
        QString::fromLatin1(StatusNotifierItem::kWatcherService), kWatcherPath,
        QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    get << QString::fromLatin1(StatusNotifierItem::kWatcherService)
        << QStringLiteral("IsStatusNotifierHostRegistered");
    auto* pending = new QDBusPendingCallWatcher(bus_.asyncCall(get), this);
    connect(pending, &QDBusPendingCallWatcher::finished, this,
            [this](QDBusPendingCallWatcher* call) {
                call->deleteLater();
                const QDBusPendingReply<QDBusVariant> reply = *call;
                if (reply.isError()) {
                    // No watcher answers: no tray. A watcher without the property: trust it.
                    const bool noWatcher = reply.error().type() == QDBusError::ServiceUnknown;
                    setState(!noWatcher, !noWatcher);
                    return;
                }
                setState(true, reply.value().variant().toBool());
            });
}

void TrayHostWatch::setState(bool watcherPresent, bool hostRegistered) {
    const bool was = isAvailable();
    watcherPresent_ = watcherPresent;
    hostRegistered_ = hostRegistered;
    if (was != isAvailable()) {
        emit availableChanged(isAvailable());
    }
}

}  // namespace bw
