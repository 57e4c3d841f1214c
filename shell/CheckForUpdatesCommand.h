#pragma once

#include <QAction>

namespace bw {

class UpdaterService;

/// The "Check for Updates…" item of the File menu (the settings have the same control as a
/// button): starts a check on `updater`, and is enabled
/// exactly while `canCheckForUpdates` is true, following each change. `updater` must outlive it.
/// GUI thread only.
class CheckForUpdatesCommand : public QAction {
    Q_OBJECT

public:
    explicit CheckForUpdatesCommand(UpdaterService& updater, QObject* parent = nullptr);
};

}  // namespace bw
