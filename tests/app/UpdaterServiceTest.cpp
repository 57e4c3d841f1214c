#include "app/UpdaterService.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTemporaryDir>

#include "tests/app/QtTestSupport.h"

namespace bw::test {
namespace {

using Outcome = UpdateCheckResult::Outcome;

/// Feeds served as files: the manager fetches them as it fetches any address.
struct FeedFolder {
    QTemporaryDir dir;
    QUrl put(const QString& name, const QByteArray& body) {
        QFile file(dir.filePath(name));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly) && file.write(body) == body.size());
        return QUrl::fromLocalFile(file.fileName());
    }
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
    FeedFolder feeds;
    const QUrl feed = feeds.put("feed.xml", feedWith(kItems));
    const QUrl broken = feeds.put("broken.xml", "<rss><channel><item><title>oops</item></channel>");
    const QUrl notAFeed = feeds.put("not-a-feed.xml", "<html><body>hello</body></html>");

    struct Case {
        QUrl feed;
        QString version;
        Outcome outcome;
        QString messageStart;
    };
    const Case cases[] = {
        {feed, "0.1.0", Outcome::updateAvailable,
         "Brightwave Record 0.3 is available; you have 0.1.0."},
        {feed, "0.3.0", Outcome::upToDate, "Brightwave Record 0.3.0 is the newest version."},
        {feed, "0.10", Outcome::upToDate, "Brightwave Record 0.10 is the"},
        {broken, "0.1.0", Outcome::failed,
         "The update check failed. The update information could not be read. "},
        {notAFeed, "0.1.0", Outcome::failed,
         "The update check failed. The update information could not be read. It is not"},
        {QUrl::fromLocalFile(feeds.dir.filePath("missing.xml")), "0.1.0", Outcome::failed,
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
    QTcpServer silent;  // takes the request and never answers
    silent.listen(QHostAddress::LocalHost);
    UpdaterService updater(QUrl(QString("http://127.0.0.1:%1/").arg(silent.serverPort())), "1.0");
    EXPECT_TRUE(updater.canCheckForUpdates());
    std::vector<bool> allowed;
    QObject::connect(&updater, &UpdaterService::canCheckForUpdatesChanged,
                     [&] { allowed.push_back(updater.canCheckForUpdates()); });
    QSignalSpy finished(&updater, &UpdaterService::checkFinished);

    updater.checkForUpdates();
    updater.checkForUpdates();  // refused: one runs
    EXPECT_EQ(QCoro::waitFor(updater.check()).message, "An update check is already running.");
    EXPECT_EQ(finished.count(), 0);
    silent.close();  // the connection drops: that check fails, and says so
    ASSERT_TRUE(pumpUntil([&] { return finished.count() == 1; }));
    EXPECT_EQ(finished.first().first().value<UpdateCheckResult>().outcome, Outcome::failed);
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
