#pragma once

#include <QVariant>
#include <QWidget>

class QLabel;

namespace bw {

/// The About page of the settings: the program's symbol and name, its version and build, one
/// line on what it does, and links to its web page and to support by mail (opened by the
/// desktop). GUI thread only.
class AboutSettingsView : public QWidget {
    Q_OBJECT
public:
    static constexpr const char* webPage = "https://brightwave.tallowfields.com";
    static constexpr const char* supportMail = "support@tallowfields.com";

    explicit AboutSettingsView(QWidget* parent = nullptr);

    /// "version (build)": each value when it is a text, else "1.0" and "1".
    static QString versionText(const QVariant& shortVersion, const QVariant& buildVersion);
    /// The version and the build number this program was built with; invalid where the build
    /// gave none.
    static QVariant buildShortVersion();
    static QVariant buildVersion();

    QLabel* versionLabel() const { return version_; }
    QLabel* webLink() const { return webLink_; }
    QLabel* mailLink() const { return mailLink_; }

private:
    QLabel* version_;
    QLabel* webLink_;
    QLabel* mailLink_;
};

}  // namespace bw
