#include "app/UpdaterService.h"

#include <gtest/gtest.h>

#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <map>

#include "tests/app/QtTestSupport.h"

namespace bw::test {
namespace {

using Outcome = UpdateCheckResult::Outcome;

/// An HTTP/1.0 server on 127.0.0.1 that answers each path with a fixed status and body.
class LocalHttpServer {
public:
    LocalHttpServer() {
        server_.listen(QHostAddress::LocalHost);
        QObject::connect(&server_, &QTcpServer::newConnection, [this] {
            while (QTcpSocket* socket = server_.nextPendingConnection()) {
                QObject::connect(socket, &QTcpSocket::readyRead,
                                 [this, socket] { answer(socket); });
            }
        });
    }
    void route(const QString& path, int status, QByteArray body) { routes_[path] = {status, body}; }
    QUrl url(const QString& path) const {
        return QUrl(QString("http://127.0.0.1:%1%2").arg(server_.serverPort()).arg(path));
    }

private:
    void answer(QTcpSocket* socket) {
        request_[socket] += socket->readAll();
        if (!request_[socket].contains("\r\n\r\n")) {
            return;
        }
        const QString path = QString::fromLatin1(request_[socket].split(' ').value(1));
        const auto found = routes_.find(path);
        const auto [status, body] =
            found != routes_.end() ? found->second : std::pair<int, QByteArray>{404, "missing"};
        socket->write("HTTP/1.0 " + QByteArray::number(status) + " X\r\nContent-Length: " +
                      QByteArray::number(body.size()) + "\r\n\r\n" + body);
        socket->disconnectFromHost();
        request_.erase(socket);
    }

    QTcpServer server_;
    std::map<QString, std::pair<int, QByteArray>> routes_;
    std::map<QTcpSocket*, QByteArray> request_;
};

QByteArray feedWith(const QByteArray& items) {
    return "<?xml version=\"1.0\"?><rss version=\"2.0\" "
           "xmlns:sparkle=\"http://www.andymatuschak.org/xml-namespaces/sparkle\"><channel>"
           "<title>Brightwave Record</title>" +
           items + "</channel></rss>";
}

const QByteArray kItems =
    "<item><title>0.1.0</title><sparkle:version>0.1.0</sparkle:version>"
    "<link>https://example.test/0.1.0</link></item>"
    "<item><title>Brightwave Record 0.3</title><description><![CDATA[<p>Faster meters</p>]]>"
    "</description><enclosure url=\"https://example.test/0.3.tar.gz\" sparkle:version=\"0.3.0\" "
    "sparkle:shortVersionString=\"0.3\"/><link>https://example.test/0.3</link></item>"
    "<item><title>0.2.0</title><sparkle:version>0.2.0</sparkle:version></item>"
    "<item><title>no version</title></item>";

TEST(UpdaterServiceTest, ACheckReportsNewerVersionsUpToDateOrAReadableFailure) {
    LocalHttpServer server;
    server.route("/feed.xml", 200, feedWith(kItems));
    server.route("/broken.xml", 200, "<rss><channel><item><title>oops</item></channel>");
    server.route("/not-a-feed.xml", 200, "<html><body>hello</body></html>");
    QTcpServer gone;
    gone.listen(QHostAddress::LocalHost);
    const QUrl goneURL(QString("http://127.0.0.1:%1/feed.xml").arg(gone.serverPort()));
    gone.close();

    struct Case {
        QUrl feed;
        QString version;
        Outcome outcome;
        QString messageStart;
    };
    const Case cases[] = {
        {server.url("/feed.xml"), "0.1.0", Outcome::updateAvailable,
         "Brightwave Record 0.3 is available; you have 0.1.0."},
        {server.url("/feed.xml"), "0.3.0", Outcome::upToDate,
         "Brightwave Record 0.3.0 is the newest version."},
        {server.url("/feed.xml"), "0.10", Outcome::upToDate, "Brightwave Record 0.10 is the"},
        {server.url("/broken.xml"), "0.1.0", Outcome::failed,
         "The update check failed. The update information could not be read. "},
        {server.url("/not-a-feed.xml"), "0.1.0", Outcome::failed,
         "The update check failed. The update information could not be read. It is not"},
        {server.url("/missing.xml"), "0.1.0", Outcome::failed,
         "The update check failed. The update information could not be downloaded. "},
        {goneURL, "0.1.0", Outcome::failed,
         "The update check failed. The update information could not be downloaded. "},
    };
    for (const auto& c : cases) {
        UpdaterService updater(c.feed, c.version);
        const UpdateCheckResult result = QCoro::waitFor(updater.check());
        EXPECT_EQ(result.outcome, c.outcome) << c.feed.toString().toStdString();
        EXPECT_TRUE(result.message.startsWith(c.messageStart)) << result.message.toStdString();
        if (c.outcome == Outcome::updateAvailable) {
            ASSERT_TRUE(result.update.has_value());
            EXPECT_EQ(result.update->version, "0.3.0");
            EXPECT_EQ(result.update->pageURL, QUrl("https://example.test/0.3"));
            EXPECT_EQ(result.update->notes, "<p>Faster meters</p>");
        }
    }
}

TEST(UpdaterServiceTest, ChecksAreRefusedWhileOneRunsAndTheResultComesAsASignal) {
    LocalHttpServer server;
    server.route("/feed.xml", 200, feedWith(kItems));
    UpdaterService updater(server.url("/feed.xml"), "1.0");
    EXPECT_TRUE(updater.canCheckForUpdates());
    std::vector<bool> allowed;
    QObject::connect(&updater, &UpdaterService::canCheckForUpdatesChanged,
                     [&] { allowed.push_back(updater.canCheckForUpdates()); });
    QSignalSpy finished(&updater, &UpdaterService::checkFinished);

    updater.checkForUpdates();
    updater.checkForUpdates();  // refused: one runs
    EXPECT_EQ(QCoro::waitFor(updater.check()).message, "An update check is already running.");
    ASSERT_TRUE(pumpUntil([&] { return finished.count() == 1; }));
    EXPECT_EQ(finished.first().first().value<UpdateCheckResult>().outcome, Outcome::upToDate);
    EXPECT_EQ(allowed, (std::vector<bool>{false, true}));

    UpdaterService unconfigured(QUrl(), "1.0");
    EXPECT_FALSE(unconfigured.canCheckForUpdates());
}

TEST(AppcastClientTest, VersionsCompareAsNumbersPartByPart) {
    struct Case {
        const char* a;
        const char* b;
        int order;
    };
    for (const auto& c :
         {Case{"1.10", "1.9", 1}, Case{"1.0", "1", 0}, Case{"0.1.0", "0.1.1", -1},
          Case{"2.0rc1", "2.0", -1}, Case{"2.0rc2", "2.0rc1", 1}, Case{"10", "9.9.9", 1}}) {
        EXPECT_EQ(AppcastClient::compareVersions(c.a, c.b), c.order) << c.a << " vs " << c.b;
        EXPECT_EQ(AppcastClient::compareVersions(c.b, c.a), -c.order) << c.b << " vs " << c.a;
    }
}

}  // namespace
}  // namespace bw::test

// Qt Network runs HTTP on a thread of its own and hands requests to it through Qt's event queue
// and GLib's wake-ups, whose locks ThreadSanitizer can't see (Qt isn't instrumented). Only Qt's
// objects cross there; this program runs no thread of ours.
extern "C" const char* __tsan_default_suppressions() {
    return "called_from_lib:libglib-2.0.so.0\nrace:libQt6Core.so.6\nrace:libQt6Network.so.6\n";
}
