#pragma once

#include <QPushButton>

namespace bw {

class UpdaterService;

/// The "Check for Updates…" button: starts a user's check on `UpdaterService` and is disabled
/// while the service says a check can't begin (before it has started, and while one runs). The
/// result arrives on the service's `checkFinished`. `updater` must outlive the button. GUI thread
/// only.
class CheckForUpdatesView : public QPushButton {
    Q_OBJECT
public:
    explicit CheckForUpdatesView(UpdaterService& updater, QWidget* parent = nullptr);

private:
    UpdaterService& updater_;
};

}  // namespace bw
