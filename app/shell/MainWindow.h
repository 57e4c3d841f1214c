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

/// The "main" window: `ContentView` and the menus that belong to it. The program menu holds
/// "Check for Updates…", "Settings…" and the quit; File holds the record command (Ctrl+R),
/// which reads "Stop Recording" exactly while a recording runs and is always enabled (the
/// state ignores a press while starting or stopping); Help holds `HelpMenuButton`.
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
    };

    explicit MainWindow(const Services& services, QWidget* parent = nullptr);

    ContentView* contentView() const { return content_; }
    QAction* recordAction() const { return record_; }
    QAction* checkForUpdatesAction() const;
    QAction* settingsAction() const { return settings_; }
    QAction* quitAction() const { return quit_; }
    HelpMenuButton* helpMenu() const { return help_; }

private:
    void updateRecordAction();

    AppState& state_;
    ContentView* content_;
    CheckForUpdatesCommand* checkForUpdates_ = nullptr;
    QAction* settings_ = nullptr;
    QAction* quit_ = nullptr;
    QAction* record_ = nullptr;
    HelpMenuButton* help_ = nullptr;
};

}  // namespace bw
