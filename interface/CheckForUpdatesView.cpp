#include "interface/CheckForUpdatesView.h"

#include "app/UpdaterService.h"

namespace bw {

CheckForUpdatesView::CheckForUpdatesView(UpdaterService& updater, QWidget* parent)
    : QPushButton(tr("Check for Updates…"), parent), updater_(updater) {
    setEnabled(updater_.canCheckForUpdates());
    connect(&updater_, &UpdaterService::canCheckForUpdatesChanged, this,
            [this] { setEnabled(updater_.canCheckForUpdates()); });
    connect(this, &QPushButton::clicked, this, [this] { updater_.checkForUpdates(); });
}

}  // namespace bw
