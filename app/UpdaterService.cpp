#include "app/UpdaterService.h"

#include <QPointer>

namespace bw {

#ifndef BW_UPDATE_FEED_URL
#define BW_UPDATE_FEED_URL ""
#endif
#ifndef BW_APP_VERSION
#define BW_APP_VERSION "0"
#endif

const char* const UpdaterService::kDefaultFeedURL = BW_UPDATE_FEED_URL;
const char* const UpdaterService::kCurrentVersion = BW_APP_VERSION;

UpdaterService::UpdaterService(QUrl feedURL, QString currentVersion, QObject* parent)
    : QObject(parent),
      feedURL_(std::move(feedURL)),
      currentVersion_(std::move(currentVersion)),
      client_(&network_) {
    // Started: a check may begin now, unless the build gave no feed to check.
    setCanCheckForUpdates(feedURL_.isValid() && !feedURL_.isEmpty());
}

UpdaterService& UpdaterService::shared() {
    static auto* service = new UpdaterService(QUrl(QString::fromUtf8(kDefaultFeedURL)),
                                              QString::fromUtf8(kCurrentVersion));
    return *service;
}

void UpdaterService::checkForUpdates() {
    if (!canCheckForUpdates_) {
        return;
    }
    announceCheck();
}

QCoro::Task<void> UpdaterService::announceCheck() {
    QPointer<UpdaterService> self(this);
    const UpdateCheckResult result = co_await check();
    if (self) {
        emit checkFinished(result);
    }
}

QCoro::Task<UpdateCheckResult> UpdaterService::check() {
    if (feedURL_.isEmpty()) {
        co_return UpdateCheckResult{UpdateCheckResult::Outcome::failed, std::nullopt,
                                    tr("This build has no address for update checks.")};
    }
    if (checking_) {
        co_return UpdateCheckResult{UpdateCheckResult::Outcome::failed, std::nullopt,
                                    tr("An update check is already running.")};
    }
    QPointer<UpdaterService> self(this);
    checking_ = true;
    setCanCheckForUpdates(false);
    emit checkStarted();
    const auto items = co_await client_.fetchItems(feedURL_);
    if (!self) {
        co_return UpdateCheckResult{};
    }
    checking_ = false;
    setCanCheckForUpdates(true);

    if (!items) {
        co_return UpdateCheckResult{
            UpdateCheckResult::Outcome::failed, std::nullopt,
            tr("The update check failed.") + QLatin1Char(' ') + items.error()};
    }
    if (auto newest = AppcastClient::newestUpdate(items.value(), currentVersion_)) {
        const QString text = tr("Brightwave Record %1 is available; you have %2.")
                                 .arg(newest->displayVersion, currentVersion_);
        co_return UpdateCheckResult{UpdateCheckResult::Outcome::updateAvailable, std::move(newest),
                                    text};
    }
    co_return UpdateCheckResult{
        UpdateCheckResult::Outcome::upToDate, std::nullopt,
        tr("Brightwave Record %1 is the newest version.").arg(currentVersion_)};
}

void UpdaterService::setCanCheckForUpdates(bool value) {
    canCheckForUpdates_ = value;
    emit canCheckForUpdatesChanged();
}

}  // namespace bw
