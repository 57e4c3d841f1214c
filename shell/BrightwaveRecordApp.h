#pragma once

#include <QObject>
#include <QPointer>
#include <QString>
#include <functional>
#include <map>

#include "shell/AppDelegate.h"

class QWidget;

namespace bw {

class AppIconCache;
class AppState;
class AudioLevelTracker;
class ConsoleClock;
class MainWindow;
class MenuBarExtra;
class RecordingTimer;
class TrayHostWatch;
class UpdaterService;
struct UpdateCheckResult;

/// The application object: the program's windows by id ("main", "settings", "help",
/// "onboarding"), one of each at a time, the tray item, and the rules of closing and quitting,
/// which it takes from `AppDelegate`. When the last of its windows closes it ends the program
/// unless a recording runs or starts; a quit while a recording starts, runs or stops finishes
/// the file first and ends the program after, asking nothing. It holds no other logic:
/// everything it starts lives in `AppState`. The tray item and the watch for a tray host live on
/// the session bus.
///
/// Thread: the GUI thread. Everything in `Dependencies` must outlive it.
class BrightwaveRecordApp : public QObject {
    Q_OBJECT

public:
    struct Dependencies {
        AppState* state = nullptr;
        RecordingTimer* timer = nullptr;
        AudioLevelTracker* levels = nullptr;
        AppIconCache* icons = nullptr;
        UpdaterService* updater = nullptr;
        ConsoleClock* clock = nullptr;  // null: the system clock
        /// The desktop asks for as little motion as possible.
        bool reduceMotion = false;
        /// The content of the "settings", "help" and "onboarding" windows, made at each opening;
        /// null for an id it doesn't know.
        std::function<QWidget*(const QString& id)> makeSceneContent;
        /// Shows the result of an update check the user started.
        std::function<void(const UpdateCheckResult& result)> showUpdateResult;
        /// Ends the program (by default, leaves the event loop).
        std::function<void()> terminate;
    };

    /// The shared state, timer, levels, updater and icon cache of the program, the real windows.
    static Dependencies system();

    explicit BrightwaveRecordApp(Dependencies dependencies, QObject* parent = nullptr);
    ~BrightwaveRecordApp() override;

    /// Shows the window `id`, making it when none is open, and brings it and the program to
    /// the front. "about" shows the settings on their About tab. Unknown ids do nothing.
    void openWindow(const QString& id);

    /// The open window `id`, else null.
    QWidget* window(const QString& id) const;
    MainWindow* mainWindow() const;
    MenuBarExtra* menuBarExtra() const { return menuBarExtra_; }
    TrayHostWatch* trayHostWatch() const { return trayHostWatch_; }

    /// The quit command (menu, keys, signals): ends now when idle; otherwise finishes the
    /// recording first. Further requests while one waits are ignored.
    void requestTermination();
    bool isTerminating() const { return terminating_; }

    /// The title of the window `id`: none for "main" (the desktop shows the program's name).
    static QString title(const QString& id);

signals:
    /// The program is about to end, after any recording has been finished.
    void terminating();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    QWidget* makeWindow(const QString& id);
    void checkForLastWindow();

    Dependencies dependencies_;
    AppDelegate delegate_;
    MenuBarExtra* menuBarExtra_;
    TrayHostWatch* trayHostWatch_;
    std::map<QString, QPointer<QWidget>> windows_;
    bool terminating_ = false;
};

}  // namespace bw
