#pragma once

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDBusVariant>
#include <QImage>
#include <QObject>
#include <QStringList>
#include <QtEndian>

#include "shell/StatusNotifierItem.h"
#include "tests/app/QtTestSupport.h"

namespace bw::test {

/// A desktop panel's stand-in on the session bus: the StatusNotifierWatcher that items register
/// with and the host that reads them, as GNOME's AppIndicator extension, Plasma or XFCE do, on a
/// connection of its own. Its bus calls to the program are asynchronous and pump the event loop,
/// since the program answers on the same thread.
class FakeTrayHost : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
    Q_PROPERTY(bool IsStatusNotifierHostRegistered READ isHostRegistered)
    Q_PROPERTY(QStringList RegisteredStatusNotifierItems READ items)
    Q_PROPERTY(int ProtocolVersion READ protocolVersion)

public:
    FakeTrayHost()
        : bus_(QDBusConnection::connectToBus(QDBusConnection::SessionBus,
                                             QStringLiteral("fake-tray-host"))) {
        bus_.registerObject(QStringLiteral("/StatusNotifierWatcher"), this,
                            QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals |
                                QDBusConnection::ExportAllProperties);
        registered_ = bus_.registerService(QStringLiteral("org.kde.StatusNotifierWatcher"));
    }
    // The connection stays open for the next host of the program: closing it would have Qt's bus
    // thread tear down its hooks into this object while it is being destroyed.
    ~FakeTrayHost() override {
        bus_.unregisterService(QStringLiteral("org.kde.StatusNotifierWatcher"));
        bus_.unregisterObject(QStringLiteral("/StatusNotifierWatcher"));
        for (const QString& service : items_) {
            bus_.disconnect(service, QStringLiteral("/StatusNotifierItem"),
                            QStringLiteral("org.kde.StatusNotifierItem"),
                            QStringLiteral("XAyatanaNewLabel"), this,
                            SLOT(takeLabel(QString, QString)));
        }
    }

    bool isRunning() const { return registered_; }
    bool isHostRegistered() const { return true; }
    int protocolVersion() const { return 0; }
    /// Registered items that are still on the bus.
    QStringList items() const {
        QStringList alive;
        for (const QString& item : items_) {
            if (bus_.interface()->isServiceRegistered(item)) {
                alive << item;
            }
        }
        return alive;
    }
    /// The label the item announced last through `XAyatanaNewLabel`.
    QString announcedLabel() const { return announcedLabel_; }

    /// A property of the newest item, read as a host reads it.
    QVariant property(const QString& name) const {
        QDBusMessage get = QDBusMessage::createMethodCall(
            items_.value(items_.size() - 1), QStringLiteral("/StatusNotifierItem"),
            QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
        get << QStringLiteral("org.kde.StatusNotifierItem") << name;
        const QDBusMessage reply = callAndWait(get);
        return reply.arguments().isEmpty()
                   ? QVariant()
                   : reply.arguments().first().value<QDBusVariant>().variant();
    }
    /// The tooltip's title.
    QString toolTipTitle() const {
        const QDBusArgument tip = property(QStringLiteral("ToolTip")).value<QDBusArgument>();
        QString iconName, title, text;
        tip.beginStructure();
        tip >> iconName;
        largestImage(tip);
        tip >> title >> text;
        tip.endStructure();
        return title;
    }
    /// The largest image of `IconPixmap`.
    QImage iconImage() const {
        return largestImage(property(QStringLiteral("IconPixmap")).value<QDBusArgument>());
    }
    /// Calls `method` of the newest item (Activate, ContextMenu: x, y) and waits for the answer.
    bool callItem(const QString& method, int x, int y) const {
        QDBusMessage call = QDBusMessage::createMethodCall(
            items_.value(items_.size() - 1), QStringLiteral("/StatusNotifierItem"),
            QStringLiteral("org.kde.StatusNotifierItem"), method);
        call << x << y;
        return callAndWait(call).type() == QDBusMessage::ReplyMessage;
    }

public slots:
    void RegisterStatusNotifierItem(const QString& service) {
        items_ << service;
        bus_.connect(service, QStringLiteral("/StatusNotifierItem"),
                     QStringLiteral("org.kde.StatusNotifierItem"),
                     QStringLiteral("XAyatanaNewLabel"), this, SLOT(takeLabel(QString, QString)));
        emit StatusNotifierItemRegistered(service);
    }
    void RegisterStatusNotifierHost(const QString&) {}

signals:
    void StatusNotifierItemRegistered(const QString& service);

private slots:
    void takeLabel(const QString& label, const QString&) { announcedLabel_ = label; }

private:
    /// Reads an array of icon images (width, height, ARGB32 in network order) and keeps the
    /// largest.
    static QImage largestImage(const QDBusArgument& pixmaps) {
        QImage largest;
        pixmaps.beginArray();
        while (!pixmaps.atEnd()) {
            int width = 0, height = 0;
            QByteArray data;
            pixmaps.beginStructure();
            pixmaps >> width >> height >> data;
            pixmaps.endStructure();
            if (width > largest.width() && data.size() == qsizetype(width) * height * 4) {
                largest = QImage(width, height, QImage::Format_ARGB32);
                const auto* in = reinterpret_cast<const quint32*>(data.constData());
                for (int y = 0; y < height; ++y) {
                    auto* line = reinterpret_cast<quint32*>(largest.scanLine(y));
                    for (int x = 0; x < width; ++x) {
                        line[x] = qFromBigEndian(*in++);
                    }
                }
            }
        }
        pixmaps.endArray();
        return largest;
    }

    QDBusMessage callAndWait(const QDBusMessage& message) const {
        QDBusPendingCall pending = bus_.asyncCall(message);
        pumpUntil([&] { return pending.isFinished(); });
        return pending.reply();
    }

    QDBusConnection bus_;
    bool registered_ = false;
    QStringList items_;
    QString announcedLabel_;
};

}  // namespace bw::test
