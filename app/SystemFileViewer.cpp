#include "app/SystemFileViewer.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDesktopServices>
#include <QFileInfo>

namespace bw {

bool SystemFileViewer::openFolder(const QUrl& folder) {
    return QDesktopServices::openUrl(folder);
}

void SystemFileViewer::selectFile(const QUrl& file) {
    const QUrl folder = QUrl::fromLocalFile(QFileInfo(file.toLocalFile()).absolutePath());
    auto bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        QDesktopServices::openUrl(folder);
        return;
    }
    auto call = QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.FileManager1"),
                                               QStringLiteral("/org/freedesktop/FileManager1"),
                                               QStringLiteral("org.freedesktop.FileManager1"),
                                               QStringLiteral("ShowItems"));
    call << QStringList{file.toString(QUrl::FullyEncoded)} << QString();
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call));
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, [watcher, folder] {
        if (watcher->isError()) {
            QDesktopServices::openUrl(folder);
        }
        watcher->deleteLater();
    });
}

}  // namespace bw
