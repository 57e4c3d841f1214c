#pragma once

#include <qcoro/qcorotask.h>
#include <QNetworkAccessManager>
#include <QObject>
#include <QString>
#include <QUrl>

#include "app/AppcastClient.h"
#include "app/UpdateCheckResult.h"

namespace bw {

/// Checks the update feed for a newer version of the program when the user asks. Updates are
/// not installed here: a newer version is reported with its web page, where the user gets it.
///
/// Thread: the main thread only. `canCheckForUpdates` is false at construction, turns true
/// once the updater has started (within the constructor, when it has a feed address), is false
/// while a check runs and true again after; its signal fires at every assignment.
class UpdaterService : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool canCheckForUpdates READ canCheckForUpdates NOTIFY canCheckForUpdatesChanged)

public:
    /// The feed address and this program's version, both from the build.
    static const char* const kDefaultFeedURL;
    static const char* const kCurrentVersion;

    UpdaterService(QUrl feedURL, QString currentVersion, QObject* parent = nullptr);

    /// The process-wide instance with the build's feed and version, made at first use.
    static UpdaterService& shared();

    bool canCheckForUpdates() const { return canCheckForUpdates_; }
    const QString& currentVersion() const { return currentVersion_; }
    const QUrl& feedURL() const { return feedURL_; }

    /// Starts a user's check unless one runs; `checkFinished` brings the result.
    void checkForUpdates();

    /// One check, awaited: the same as `checkForUpdates` but for its caller. While another
    /// check runs it gives a failure without contacting the server.
    QCoro::Task<UpdateCheckResult> check();

signals:
    void canCheckForUpdatesChanged();
    void checkStarted();
    void checkFinished(const bw::UpdateCheckResult& result);

private:
    QCoro::Task<void> announceCheck();
    void setCanCheckForUpdates(bool value);

    QUrl feedURL_;
    QString currentVersion_;
    QNetworkAccessManager network_;
    AppcastClient client_;
    bool canCheckForUpdates_ = false;
    bool checking_ = false;
};

}  // namespace bw
