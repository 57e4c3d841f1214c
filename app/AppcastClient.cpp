#include "app/AppcastClient.h"

#include <qcoro/qcoronetworkreply.h>
#include <QCoreApplication>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>
#include <QXmlStreamReader>

namespace bw {

namespace {

constexpr int kTransferTimeoutMs = 30000;

QString tr(const char* text) {
    return QCoreApplication::translate("bw::AppcastClient", text);
}

/// Splits "12rc3" into 12 and "rc3"; a part without leading digits is all text.
std::pair<qlonglong, QString> splitPart(const QString& part) {
    qsizetype digits = 0;
    while (digits < part.size() && part[digits].isDigit()) {
        ++digits;
    }
    const qlonglong number = digits > 0 ? part.left(digits).toLongLong() : -1;
    return {number, part.mid(digits)};
}

}  // namespace

AppcastClient::AppcastClient(QNetworkAccessManager* network) : network_(network) {}

QCoro::Task<Expected<std::vector<AppcastItem>, QString>> AppcastClient::fetchItems(QUrl feed) {
    QNetworkRequest request(feed);
    request.setTransferTimeout(kTransferTimeoutMs);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::NoLessSafeRedirectPolicy);
    // The manager owns its replies and deletes them with itself.
    QPointer<QNetworkReply> reply = network_->get(request);
    co_await reply.data();
    if (!reply) {
        co_return Unexpected(tr("The update check was cancelled."));
    }
    reply->deleteLater();
    if (reply->error() != QNetworkReply::NoError) {
        co_return Unexpected(tr("The update information could not be downloaded.") +
                             QLatin1Char(' ') + reply->errorString());
    }
    co_return parse(reply->readAll());
}

Expected<std::vector<AppcastItem>, QString> AppcastClient::parse(const QByteArray& feed) {
    QXmlStreamReader xml(feed);
    std::vector<AppcastItem> items;
    bool sawChannel = false;
    std::optional<AppcastItem> item;
    QUrl enclosureURL;
    QUrl notesURL;

    while (!xml.atEnd()) {
        xml.readNext();
        if (xml.isStartElement()) {
            const auto name = xml.name();
            if (name == QLatin1String("channel")) {
                sawChannel = true;
            } else if (name == QLatin1String("item")) {
                item.emplace();
                enclosureURL.clear();
                notesURL.clear();
            } else if (item) {
                if (name == QLatin1String("enclosure")) {
                    for (const auto& attribute : xml.attributes()) {
                        const auto attributeName = attribute.name();
                        if (attributeName == QLatin1String("version") && item->version.isEmpty()) {
                            item->version = attribute.value().trimmed().toString();
                        } else if (attributeName == QLatin1String("shortVersionString") &&
                                   item->displayVersion.isEmpty()) {
                            item->displayVersion = attribute.value().trimmed().toString();
                        } else if (attributeName == QLatin1String("url")) {
                            enclosureURL = QUrl(attribute.value().trimmed().toString());
                        }
                    }
                } else if (name == QLatin1String("version")) {
                    item->version = xml.readElementText().trimmed();
                } else if (name == QLatin1String("shortVersionString")) {
                    item->displayVersion = xml.readElementText().trimmed();
                } else if (name == QLatin1String("title")) {
                    item->title = xml.readElementText().trimmed();
                } else if (name == QLatin1String("link")) {
                    item->pageURL = QUrl(xml.readElementText().trimmed());
                } else if (name == QLatin1String("releaseNotesLink")) {
                    notesURL = QUrl(xml.readElementText().trimmed());
                } else if (name == QLatin1String("description")) {
                    item->notes =
                        xml.readElementText(QXmlStreamReader::IncludeChildElements).trimmed();
                }
            }
        } else if (xml.isEndElement() && xml.name() == QLatin1String("item") && item) {
            if (!item->version.isEmpty()) {
                if (item->displayVersion.isEmpty()) {
                    item->displayVersion = item->version;
                }
                if (item->pageURL.isEmpty()) {
                    item->pageURL = !notesURL.isEmpty() ? notesURL : enclosureURL;
                }
                items.push_back(std::move(*item));
            }
            item.reset();
        }
    }
    if (xml.hasError()) {
        return Unexpected(tr("The update information could not be read.") + QLatin1Char(' ') +
                          xml.errorString());
    }
    if (!sawChannel) {
        return Unexpected(tr("The update information could not be read.") + QLatin1Char(' ') +
                          tr("It is not a list of releases."));
    }
    return items;
}

int AppcastClient::compareVersions(const QString& a, const QString& b) {
    const QStringList left = a.trimmed().split(QLatin1Char('.'));
    const QStringList right = b.trimmed().split(QLatin1Char('.'));
    const qsizetype count = std::max(left.size(), right.size());
    for (qsizetype i = 0; i < count; ++i) {
        // A missing part counts as 0, so "1.0" equals "1".
        const auto [leftNumber, leftRest] =
            splitPart(i < left.size() ? left[i] : QStringLiteral("0"));
        const auto [rightNumber, rightRest] =
            splitPart(i < right.size() ? right[i] : QStringLiteral("0"));
        if (leftNumber != rightNumber) {
            return leftNumber < rightNumber ? -1 : 1;
        }
        if (const int text = QString::compare(leftRest, rightRest); text != 0) {
            // A pre-release suffix ("2.0rc1") comes before the plain release ("2.0").
            if (leftRest.isEmpty() || rightRest.isEmpty()) {
                return leftRest.isEmpty() ? 1 : -1;
            }
            return text < 0 ? -1 : 1;
        }
    }
    return 0;
}

std::optional<AppcastItem> AppcastClient::newestUpdate(const std::vector<AppcastItem>& items,
                                                       const QString& currentVersion) {
    std::optional<AppcastItem> newest;
    for (const auto& item : items) {
        if (compareVersions(item.version, currentVersion) > 0 &&
            (!newest || compareVersions(item.version, newest->version) > 0)) {
            newest = item;
        }
    }
    return newest;
}

}  // namespace bw
