#include "shell/CheckForUpdatesCommand.h"

#include "app/UpdaterService.h"

namespace bw {

CheckForUpdatesCommand::CheckForUpdatesCommand(UpdaterService& updater, QObject* parent)
    : QAction(tr("Check for Updates…"), parent) {
    setMenuRole(QAction::ApplicationSpecificRole);
    auto follow = [this, &updater] { setEnabled(updater.canCheckForUpdates()); };
    connect(&updater, &UpdaterService::canCheckForUpdatesChanged, this, follow);
    connect(this, &QAction::triggered, &updater, &UpdaterService::checkForUpdates);
    follow();
}

}  // namespace bw
