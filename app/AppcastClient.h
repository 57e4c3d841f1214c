#pragma once

#include <qcoro/qcorotask.h>
#include <QByteArray>
#include <QNetworkAccessManager>
#include <QString>
#include <QUrl>
#include <optional>
#include <vector>

#include "app/AppcastItem.h"
#include "platform/base/Expected.h"

namespace bw {

/// Reads an appcast: an RSS 2.0 feed whose items are releases. An item's version comes from a
/// `version` element or from the `version` attribute of its `enclosure` (in any namespace, so
/// Sparkle's "sparkle:version" works), its shown version likewise from `shortVersionString`;
/// the page is the item's `link` (else `releaseNotesLink`, else the enclosure's address), the
/// notes its `description`. Items without a version are left out.
///
/// Thread: the main thread (Qt Network); the task resumes there.
class AppcastClient {
public:
    /// Fetches with `network`, which must outlive the client.
    explicit AppcastClient(QNetworkAccessManager* network);

    /// The feed's items in feed order, or a sentence for the user saying why there are none:
    /// the server couldn't be reached, answered with an error, or sent something that is not
    /// an appcast. Gives up after 30 seconds without progress.
    QCoro::Task<Expected<std::vector<AppcastItem>, QString>> fetchItems(QUrl feed);

    /// The parsing step of `fetchItems`.
    static Expected<std::vector<AppcastItem>, QString> parse(const QByteArray& feed);

    /// Compares dotted versions part by part, numbers as numbers ("1.10" > "1.9", "1.0" ==
    /// "1"); a part with letters compares as text after its leading digits. Negative, 0 or
    /// positive.
    static int compareVersions(const QString& a, const QString& b);

    /// The item with the highest version above `currentVersion`, or nothing.
    static std::optional<AppcastItem> newestUpdate(const std::vector<AppcastItem>& items,
                                                   const QString& currentVersion);

private:
    QNetworkAccessManager* network_;
};

}  // namespace bw
