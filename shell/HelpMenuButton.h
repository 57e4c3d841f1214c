#pragma once

#include <QObject>
#include <functional>

class QAction;
class QMenu;

namespace bw {

/// The help menu's two items: "Brightwave Record Help" on Ctrl+? opens the "help" window,
/// "Welcome Tour…" the "onboarding" one. Adds them to `menu`, which owns them. GUI thread only.
class HelpMenuButton : public QObject {
    Q_OBJECT

public:
    using OpenWindow = std::function<void(const QString& id)>;

    HelpMenuButton(OpenWindow openWindow, QMenu* menu);

    QAction* helpAction() const { return help_; }
    QAction* welcomeTourAction() const { return welcomeTour_; }

private:
    QAction* help_;
    QAction* welcomeTour_;
};

}  // namespace bw
