#include "shell/StatusNotifierItem.h"

#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusServiceWatcher>
#include <QtEndian>
#include <atomic>

namespace bw {
namespace {

// One image of the icon as the protocol carries it: ARGB32 in network byte order.
struct SniPixmap {
    int width = 0;
    int height = 0;
    QByteArray data;
};

// The tooltip: icon name, icon images, title, text.
struct SniToolTip {
    QString iconName;
    QList<SniPixmap> pixmaps;
    QString title;
    QString text;
};

}  // namespace
}  // namespace bw

Q_DECLARE_METATYPE(bw::SniPixmap)
Q_DECLARE_METATYPE(bw::SniToolTip)

namespace bw {
namespace {

QDBusArgument& operator<<(QDBusArgument& argument, const SniPixmap& pixmap) {
    argument.beginStructure();
    argument << pixmap.width << pixmap.height << pixmap.data;
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, SniPixmap& pixmap) {
    argument.beginStructure();
    argument >> pixmap.width >> pixmap.height >> pixmap.data;
    argument.endStructure();
    return argument;
}

QDBusArgument& operator<<(QDBusArgument& argument, const SniToolTip& tip) {
    argument.beginStructure();
    argument << tip.iconName << tip.pixmaps << tip.title << tip.text;
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, SniToolTip& tip) {
    argument.beginStructure();
    argument >> tip.iconName >> tip.pixmaps >> tip.title >> tip.text;
    argument.endStructure();
    return argument;
}

void registerTypes() {
    static const bool done = [] {
        qDBusRegisterMetaType<SniPixmap>();
        qDBusRegisterMetaType<QList<SniPixmap>>();
        qDBusRegisterMetaType<SniToolTip>();
        return true;
    }();
    (void)done;
}

QList<SniPixmap> pixmapsOf(const QImage& image) {
    QList<SniPixmap> pixmaps;
    if (image.isNull()) {
        return pixmaps;
    }
    for (const int side : {16, 22, 32, 48}) {
        const QImage scaled =
            image.scaled(side, side, Qt::KeepAspectRatio, Qt::SmoothTransformation)
                .convertToFormat(QImage::Format_ARGB32);
        SniPixmap pixmap{scaled.width(), scaled.height(), {}};
        pixmap.data.resize(qsizetype(scaled.width()) * scaled.height() * 4);
        auto* out = reinterpret_cast<quint32*>(pixmap.data.data());
        for (int y = 0; y < scaled.height(); ++y) {
            const auto* line = reinterpret_cast<const quint32*>(scaled.constScanLine(y));
            for (int x = 0; x < scaled.width(); ++x) {
                *out++ = qToBigEndian(line[x]);
            }
        }
        pixmaps.append(pixmap);
    }
    return pixmaps;
}

}  // namespace

/// What the item shows on the bus: exactly the protocol's properties, methods and signals.
class StatusNotifierItemExport : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierItem")
    Q_PROPERTY(QString Category READ category)
    Q_PROPERTY(QString Id READ id)
    Q_PROPERTY(QString Title READ title)
    Q_PROPERTY(QString Status READ status)
    Q_PROPERTY(int WindowId READ windowId)
    Q_PROPERTY(QString IconThemePath READ empty)
    Q_PROPERTY(QString IconName READ iconName)
    Q_PROPERTY(QList<bw::SniPixmap> IconPixmap READ iconPixmap)
    Q_PROPERTY(QString OverlayIconName READ empty)
    Q_PROPERTY(QList<bw::SniPixmap> OverlayIconPixmap READ noPixmaps)
    Q_PROPERTY(QString AttentionIconName READ empty)
    Q_PROPERTY(QList<bw::SniPixmap> AttentionIconPixmap READ noPixmaps)
    Q_PROPERTY(QString AttentionMovieName READ empty)
    Q_PROPERTY(bw::SniToolTip ToolTip READ toolTip)
    Q_PROPERTY(bool ItemIsMenu READ itemIsMenu)
    Q_PROPERTY(QDBusObjectPath Menu READ menu)
    Q_PROPERTY(QString XAyatanaLabel READ label)
    Q_PROPERTY(QString XAyatanaLabelGuide READ labelGuide)
    Q_PROPERTY(uint XAyatanaOrderingIndex READ orderingIndex)

public:
    explicit StatusNotifierItemExport(StatusNotifierItem* item) : QObject(item), item_(item) {}

    QString category() const { return QStringLiteral("ApplicationStatus"); }
    QString id() const { return item_->id_; }
    QString title() const { return item_->title_; }
    QString status() const { return QStringLiteral("Active"); }
    int windowId() const { return 0; }
    QString empty() const { return {}; }
    QString iconName() const { return item_->iconName_; }
    QList<SniPixmap> iconPixmap() const { return pixmapsOf(item_->iconImage_); }
    QList<SniPixmap> noPixmaps() const { return {}; }
    SniToolTip toolTip() const {
        return {item_->iconName_, {}, item_->toolTipTitle_, item_->toolTipText_};
    }
    bool itemIsMenu() const { return false; }
    // The panel is our own window; there is no exported menu.
    QDBusObjectPath menu() const { return QDBusObjectPath(QStringLiteral("/NO_DBUSMENU")); }
    QString label() const { return item_->label_; }
    QString labelGuide() const { return item_->labelGuide_; }
    uint orderingIndex() const { return 0; }

public slots:
    void Activate(int x, int y) { emit item_->activated(QPoint(x, y)); }
    void SecondaryActivate(int x, int y) { emit item_->contextRequested(QPoint(x, y)); }
    void ContextMenu(int x, int y) { emit item_->contextRequested(QPoint(x, y)); }
    void Scroll(int, const QString&) {}
    void ProvideXdgActivationToken(const QString& token) {
        // A Wayland compositor lets the window that opens next take the focus with it.
        qputenv("XDG_ACTIVATION_TOKEN", token.toUtf8());
    }

signals:
    void NewTitle();
    void NewIcon();
    void NewToolTip();
    void NewStatus(const QString& status);
    void XAyatanaNewLabel(const QString& label, const QString& guide);

private:
    StatusNotifierItem* item_;
};

StatusNotifierItem::StatusNotifierItem(const QString& id, QDBusConnection bus, QObject* parent)
    : QObject(parent), bus_(std::move(bus)), id_(id) {
    registerTypes();
    export_ = new StatusNotifierItemExport(this);
    if (!bus_.isConnected()) {
        return;
    }
    static std::atomic<int> made{0};
    const QString name = QStringLiteral("org.kde.StatusNotifierItem-%1-%2")
                             .arg(QCoreApplication::applicationPid())
                             .arg(++made);
    if (!bus_.registerObject(QString::fromLatin1(kObjectPath), export_,
                             QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals |
                                 QDBusConnection::ExportAllProperties)) {
        return;
    }
    if (!bus_.registerService(name)) {
        bus_.unregisterObject(QString::fromLatin1(kObjectPath));
        return;
    }
    serviceName_ = name;
    // A panel that starts (or restarts) later gets the item too.
    auto* watcher = new QDBusServiceWatcher(QString::fromLatin1(kWatcherService), bus_,
                                            QDBusServiceWatcher::WatchForRegistration, this);
    connect(watcher, &QDBusServiceWatcher::serviceRegistered, this,
            &StatusNotifierItem::registerWithWatcher);
    registerWithWatcher();
}

StatusNotifierItem::~StatusNotifierItem() {
    if (!serviceName_.isEmpty()) {
        // The watcher drops the item when its name goes.
        bus_.unregisterObject(QString::fromLatin1(kObjectPath));
        bus_.unregisterService(serviceName_);
    }
}

void StatusNotifierItem::registerWithWatcher() {
    QDBusMessage call = QDBusMessage::createMethodCall(
        QString::fromLatin1(kWatcherService), QStringLiteral("/StatusNotifierWatcher"),
        QString::fromLatin1(kWatcherService), QStringLiteral("RegisterStatusNotifierItem"));
    call << serviceName_;
    // No watcher, no tray: the answer changes nothing, so it isn't awaited.
    bus_.asyncCall(call);
}

void StatusNotifierItem::emitOnBus(const char* signal) {
    QMetaObject::invokeMethod(export_, signal);
}

void StatusNotifierItem::setTitle(const QString& title) {
    if (title == title_) {
        return;
    }
    title_ = title;
    emitOnBus("NewTitle");
}

void StatusNotifierItem::setToolTip(const QString& title, const QString& text) {
    if (title == toolTipTitle_ && text == toolTipText_) {
        return;
    }
    toolTipTitle_ = title;
    toolTipText_ = text;
    emitOnBus("NewToolTip");
}

void StatusNotifierItem::setLabel(const QString& label, const QString& guide) {
    if (label == label_ && guide == labelGuide_) {
        return;
    }
    label_ = label;
    labelGuide_ = guide;
    emit export_->XAyatanaNewLabel(label_, labelGuide_);
}

void StatusNotifierItem::setIcon(const QString& themeName, const QImage& image) {
    iconName_ = themeName;
    iconImage_ = image;
    emitOnBus("NewIcon");
}

}  // namespace bw

#include "StatusNotifierItem.moc"
