#include "app/MicrophonePermission.h"

#include <qcoro/qcorodbuspendingreply.h>
#include <unistd.h>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingReply>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QVariantMap>

#include "app/SharedResult.h"

namespace bw {

namespace {

/// Receives the portal's Response signal of one request.
class PortalResponse : public QObject {
    Q_OBJECT

public:
    explicit PortalResponse(SharedResult<bool> answer) : answer_(std::move(answer)) {}

public slots:
    void response(uint code, const QVariantMap&) { answer_.set(code == 0); }

private:
    SharedResult<bool> answer_;
};

const QString kPortalService = QStringLiteral("org.freedesktop.portal.Desktop");
const QString kPortalPath = QStringLiteral("/org/freedesktop/portal/desktop");

}  // namespace

bool MicrophonePermission::isSandboxed() {
    return QFileInfo::exists(QStringLiteral("/.flatpak-info"));
}

QCoro::Task<bool> MicrophonePermission::request() {
    if (!isSandboxed()) {
        co_return true;
    }
    auto bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        // Without a portal nothing can refuse; the audio server has the last word.
        co_return true;
    }
    // The request's object path is known before the call, so the answer can't slip past us.
    const QString token =
        QStringLiteral("brightwave%1").arg(QRandomGenerator::global()->generate());
    QString sender = bus.baseService().mid(1);
    sender.replace(QLatin1Char('.'), QLatin1Char('_'));
    const QString requestPath = QStringLiteral("%1/request/%2/%3").arg(kPortalPath, sender, token);

    SharedResult<bool> answer;
    PortalResponse receiver(answer);
    bus.connect(kPortalService, requestPath, QStringLiteral("org.freedesktop.portal.Request"),
                QStringLiteral("Response"), &receiver, SLOT(response(uint, QVariantMap)));

    auto call = QDBusMessage::createMethodCall(kPortalService, kPortalPath,
                                               QStringLiteral("org.freedesktop.portal.Device"),
                                               QStringLiteral("AccessDevice"));
    call << static_cast<uint>(::getpid()) << QStringList{QStringLiteral("microphone")}
         << QVariantMap{{QStringLiteral("handle_token"), token}};
    QDBusPendingReply<QDBusObjectPath> reply = bus.asyncCall(call);
    co_await reply;
    if (reply.isError()) {
        co_return true;
    }
    const bool granted = co_await answer;
    bus.disconnect(kPortalService, requestPath, QStringLiteral("org.freedesktop.portal.Request"),
                   QStringLiteral("Response"), &receiver, SLOT(response(uint, QVariantMap)));
    co_return granted;
}

}  // namespace bw

#include "MicrophonePermission.moc"
