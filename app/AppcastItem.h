#pragma once

#include <QString>
#include <QUrl>

namespace bw {

/// One release as an appcast lists it. A plain value.
struct AppcastItem {
    /// The version that is compared ("1.2.0"); never empty.
    QString version;
    /// The version as shown to the user; `version` when the feed gives none.
    QString displayVersion;
    QString title;
    /// The release's web page, where the user downloads it; may be empty.
    QUrl pageURL;
    /// The release notes as the feed gives them (plain text or HTML); may be empty.
    QString notes;

    friend bool operator==(const AppcastItem&, const AppcastItem&) = default;
};

}  // namespace bw
