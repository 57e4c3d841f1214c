#include "app/shell/MainWindow.h"

#include <QMenuBar>

#include "app/AppState.h"
#include "app/shell/CheckForUpdatesCommand.h"
#include "app/shell/HelpMenuButton.h"
#include "interface/ContentView.h"
#include "interface/RecordButton.h"

namespace bw {

MainWindow::MainWindow(const Services& services, QWidget* parent)
    : QMainWindow(parent),
      state_(*services.state),
      content_(new ContentView(*services.state, *services.icons, *services.levels, *services.timer,
                               services.clock, this)) {
    setObjectName(QStringLiteral("main"));
    // No title of its own (the desktop shows the program's name), but a name to announce.
    setAccessibleName(tr("Brightwave Record"));
    setCentralWidget(content_);
    content_->setOpenWindow(services.openWindow);
    content_->recordButton()->setReduceMotion(services.reduceMotion);
    resize(kDefaultSize);

    QMenu* program = menuBar()->addMenu(tr("Brightwave Record"));
    checkForUpdates_ = new CheckForUpdatesCommand(*services.updater, program);
    program->addAction(checkForUpdates_);
    program->addSeparator();
    settings_ = program->addAction(tr("Settings…"));
    settings_->setShortcut(QKeySequence(QStringLiteral("Ctrl+,")));
    settings_->setMenuRole(QAction::PreferencesRole);
    connect(settings_, &QAction::triggered, this,
            [open = services.openWindow] { open(QStringLiteral("settings")); });
    program->addSeparator();
    quit_ = program->addAction(tr("Quit Brightwave Record"));
    quit_->setShortcut(QKeySequence::Quit);
    quit_->setMenuRole(QAction::QuitRole);
    connect(quit_, &QAction::triggered, this, [quit = services.quit] { quit(); });

    QMenu* file = menuBar()->addMenu(tr("File"));
    record_ = file->addAction(QString());
    record_->setShortcut(QKeySequence(QStringLiteral("Ctrl+R")));
    connect(record_, &QAction::triggered, this, [this] { state_.toggleRecording(); });
    file->addSeparator();
    QAction* close = file->addAction(tr("Close Window"));
    close->setShortcut(QKeySequence::Close);
    connect(close, &QAction::triggered, this, &QWidget::close);

    QMenu* helpMenu = menuBar()->addMenu(tr("Help"));
    help_ = new HelpMenuButton(services.openWindow, helpMenu);

    connect(&state_, &AppState::isRecordingChanged, this, &MainWindow::updateRecordAction);
    updateRecordAction();
}

QAction* MainWindow::checkForUpdatesAction() const {
    return checkForUpdates_;
}

void MainWindow::updateRecordAction() {
    record_->setText(state_.isRecording() ? tr("Stop Recording") : tr("Start Recording"));
}

}  // namespace bw
