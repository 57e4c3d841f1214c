#include "shell/MainWindow.h"

#include <QCloseEvent>
#include <QMenuBar>

#include "app/AppState.h"
#include "shell/CheckForUpdatesCommand.h"
#include "shell/HelpMenuButton.h"
#include "interface/ContentView.h"
#include "interface/RecordButton.h"

namespace bw {

MainWindow::MainWindow(const Services& services, QWidget* parent)
    : QMainWindow(parent),
      state_(*services.state),
      trayAvailable_(services.trayAvailable),
      content_(new ContentView(*services.state, *services.icons, *services.levels, *services.timer,
                               services.clock, this)) {
    setObjectName(QStringLiteral("main"));
    // No title of its own (the desktop shows the program's name), but a name to announce.
    setAccessibleName(tr("Brightwave Record"));
    setCentralWidget(content_);
    content_->setOpenWindow(services.openWindow);
    content_->setReduceMotion(services.reduceMotion);
    resize(kDefaultSize);

    // Linux programs have no menu named after themselves: its items live in File and Help.
    QMenu* file = menuBar()->addMenu(tr("File"));
    record_ = file->addAction(QString());
    record_->setShortcut(QKeySequence(QStringLiteral("Ctrl+R")));
    connect(record_, &QAction::triggered, this, [this] { state_.toggleRecording(); });
    file->addSeparator();
    settings_ = file->addAction(tr("Settings…"));
    settings_->setShortcut(QKeySequence(QStringLiteral("Ctrl+,")));
    connect(settings_, &QAction::triggered, this,
            [open = services.openWindow] { open(QStringLiteral("settings")); });
    checkForUpdates_ = new CheckForUpdatesCommand(*services.updater, file);
    file->addAction(checkForUpdates_);
    file->addSeparator();
    close_ = file->addAction(tr("Close Window"));
    close_->setShortcut(QKeySequence::Close);
    connect(close_, &QAction::triggered, this, &QWidget::close);
    quit_ = file->addAction(tr("Quit"));
    quit_->setShortcut(QKeySequence::Quit);
    connect(quit_, &QAction::triggered, this, [quit = services.quit] { quit(); });

    QMenu* helpMenu = menuBar()->addMenu(tr("Help"));
    help_ = new HelpMenuButton(services.openWindow, helpMenu);
    helpMenu->addSeparator();
    about_ = helpMenu->addAction(tr("About Brightwave Record"));
    connect(about_, &QAction::triggered, this,
            [open = services.openWindow] { open(QStringLiteral("about")); });

    connect(&state_, &AppState::isRecordingChanged, this, &MainWindow::updateRecordAction);
    updateRecordAction();
}

QAction* MainWindow::checkForUpdatesAction() const {
    return checkForUpdates_;
}

void MainWindow::closeEvent(QCloseEvent* event) {
    const bool recordingGoesOn = state_.isRecording() || state_.isStartingRecording();
    if (recordingGoesOn && trayAvailable_ && !trayAvailable_()) {
        event->ignore();
        showMinimized();
        if (!minimiseExplained_) {
            minimiseExplained_ = true;
            content_->showStatusNotice(tr("Recording · minimised: no system tray here"));
        }
        return;
    }
    QMainWindow::closeEvent(event);
}

void MainWindow::updateRecordAction() {
    record_->setText(state_.isRecording() ? tr("Stop Recording") : tr("Start Recording"));
}

}  // namespace bw
