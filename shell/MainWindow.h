#pragma once

#include <QMainWindow>
#include <functional>

class QAction;

namespace bw {

class AppIconCache;
class AppState;
class AudioLevelTracker;
class CheckForUpdatesCommand;
class ConsoleClock;
class ContentView;
class HelpMenuButton;
class RecordingTimer;
class UpdaterService;

/// The "main" window: `ContentView` and the menus that belong to it. File holds the record
/// command (Ctrl+R), which reads "Stop Recording" exactly while a recording runs and is always
/// enabled (the state ignores a press while starting or stopping), then "Settings…", "Check for
/// Updates…", "Close Window" and "Quit"; Help holds `HelpMenuButton` and ends with "About
/// Brightwave Record", which asks for the window "about" (Settings on its About tab). While a
/// recording starts or runs on a desktop without a tray, closing minimises the window instead,
/// and the status line says why the first time.
/// Everything given must outlive the window. GUI thread only.
class MainWindow : public QMainWindow {
    Q_OBJECT

public:
    static constexpr QSize kDefaultSize{640, 560};

    struct Services {
        AppState* state = nullptr;
        AppIconCache* icons = nullptr;
        AudioLevelTracker* levels = nullptr;
        RecordingTimer* timer = nullptr;
        UpdaterService* updater = nullptr;
        ConsoleClock* clock = nullptr;  // null: the system clock
        bool reduceMotion = false;      // the record key without its pulse
        std::function<void(const QString& id)> openWindow;
        std::function<void()> quit;
        /// Whether the desktop shows tray items; null: it does.
        std::function<bool()> trayAvailable;
    };

    explicit MainWindow(const Services& services, QWidget* parent = nullptr);

    ContentView* contentView() const { return content_; }
    QAction* recordAction() const { return record_; }
    QAction* checkForUpdatesAction() const;
    QAction* settingsAction() const { return settings_; }
    QAction* closeAction() const { return close_; }
    QAction* quitAction() const { return quit_; }
    QAction* aboutAction() const { return about_; }
    HelpMenuButton* helpMenu() const { return help_; }

protected:
    /// Without a tray a closed window would strand a running recording, so closing minimises.
    void closeEvent(QCloseEvent* event) override;

private:
    void updateRecordAction();

    AppState& state_;
    std::function<bool()> trayAvailable_;
    ContentView* content_;
    CheckForUpdatesCommand* checkForUpdates_ = nullptr;
    QAction* settings_ = nullptr;
    QAction* close_ = nullptr;
    QAction* quit_ = nullptr;
    QAction* about_ = nullptr;
    QAction* record_ = nullptr;
    HelpMenuButton* help_ = nullptr;
    bool minimiseExplained_ = false;
};

}  // namespace bw
