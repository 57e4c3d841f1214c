#include "shell/HelpMenuButton.h"

#include <QAction>
#include <QMenu>

namespace bw {

HelpMenuButton::HelpMenuButton(OpenWindow openWindow, QMenu* menu)
    : QObject(menu),
      help_(menu->addAction(tr("Brightwave Record Help"))),
      welcomeTour_(menu->addAction(tr("Welcome Tour…"))) {
    help_->setShortcut(QKeySequence(QStringLiteral("Ctrl+?")));
    connect(help_, &QAction::triggered, this, [openWindow] { openWindow(QStringLiteral("help")); });
    connect(welcomeTour_, &QAction::triggered, this,
            [openWindow] { openWindow(QStringLiteral("onboarding")); });
}

}  // namespace bw
