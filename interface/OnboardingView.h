#pragma once

#include <QStringList>
#include <QWidget>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include "app/TaskHandle.h"
#include "interface/ConsoleClock.h"
#include "interface/SpringAnimation.h"

class QLabel;
class QProgressBar;
class QPushButton;
class QSettings;
class QStackedWidget;
class QGraphicsOpacityEffect;

namespace bw {

class ConsoleClock;
class SegmentedMeter;
class SymbolView;
class SystemAudioPermission;
class SystemAudioTapProbe;

/// The first-run walkthrough: four steps in a fixed 520 × 560 window on the console panel (what
/// the program does, how it works, the permission to record system audio, the way in), with
/// "Back", step dots and a forward button along the bottom.
///
/// The permission step is the one place that asks for that permission ahead of a recording. While
/// it is on screen (the step shown and the widget visible) one schedule runs: a single recheck at
/// once when the preference says an attempt was made before and nothing is known yet, then every
/// 2 seconds, counted from the end of the previous attempt, an attempt while the answer is
/// "denied". Changing the step, hiding the window or destroying it cancels the schedule; an
/// attempt already under way only ends in the permission's status, which the view keeps across
/// step changes.
///
/// However the window goes (closed, hidden, the final button, destroyed after being shown),
/// "hasCompletedOnboarding" is set to true in `defaults`, so the main window doesn't open it again.
///
/// Works as a top-level window of its own: the final button closes the window the view is in.
/// GUI thread only; the probe runs on the work pool.
class OnboardingView : public QWidget {
    Q_OBJECT
    Q_PROPERTY(int step READ step WRITE setStep NOTIFY stepChanged)

public:
    static constexpr int stepCount = 4;
    static constexpr int permissionStep = 2;
    static constexpr int fixedWidth = 520;
    static constexpr int fixedHeight = 560;
    static constexpr std::chrono::milliseconds permissionRecheckInterval{2000};
    /// The demonstration meter of the second step is redrawn at most this often.
    static constexpr std::chrono::milliseconds demoMeterInterval{50};

    /// A program that opens the desktop's sound or privacy settings.
    struct SettingsCommand {
        QString program;
        QStringList arguments;
    };
    /// Opens the desktop's settings; returns whether something was started.
    using OpenSettings = std::function<bool()>;

    /// `defaults` (the preferences' store) and `clock` must outlive the view; `clock` times the
    /// schedule, the step fade and the demonstration meter, the system one by default. The
    /// permission is made here, from `probe` and `defaults`, and lives as long as the view.
    OnboardingView(std::shared_ptr<SystemAudioTapProbe> probe, QSettings* defaults,
                   ConsoleClock* clock = nullptr, QWidget* parent = nullptr);
    ~OnboardingView() override;

    /// What "Open System Settings" does; by default `openDesktopAudioSettings`.
    void setOpenSettings(OpenSettings open) { openSettings_ = std::move(open); }

    /// Starts the desktop's audio settings detached, when a program for them is found on the
    /// search path. Doesn't wait for the program.
    static bool openDesktopAudioSettings();
    /// The settings program for `desktops` (the colon-separated names of XDG_CURRENT_DESKTOP):
    /// the desktop's own settings where it has them, else a mixer, else another desktop's
    /// settings; `find` turns a program name into its path, empty when missing. The program
    /// of the result is that path.
    static std::optional<SettingsCommand> desktopAudioSettingsCommand(
        const QString& desktops, const std::function<QString(const QString&)>& find);

    int step() const { return step_; }
    /// Moves to `step` (clamped to 0…3), as the navigation buttons do, with the step fade.
    void setStep(int step);

    /// With reduced motion the demonstration meter stands still at 0.4; the step fade stays.
    bool reduceMotion() const { return reduceMotion_; }
    void setReduceMotion(bool reduce);

    SystemAudioPermission& permission() const { return *permission_; }
    /// Whether the permission step's schedule is running now.
    bool isPermissionScheduleRunning() const;

    /// The level of the demonstration meter at `seconds` on the clock: 0.08 to 0.68 and back,
    /// about every 2.6 seconds.
    static float demoMeterLevel(double seconds);

    // The parts, for the shell and for tests.
    QPushButton* backButton() const { return back_; }
    QPushButton* forwardButton() const { return forward_; }
    QWidget* stepDots() const { return dots_; }
    QPushButton* allowButton() const { return allow_; }
    QPushButton* openSettingsButton() const { return openSettingsButton_; }
    QProgressBar* requestingIndicator() const { return requesting_; }
    QPushButton* startButton() const { return start_; }
    QLabel* permissionText() const { return permissionText_; }
    SymbolView* permissionSymbol() const { return permissionSymbol_; }
    QLabel* readyText() const { return readyText_; }
    SegmentedMeter* demoMeter() const { return demoMeter_; }
    /// The page of the step on screen.
    QWidget* currentPage() const;

signals:
    void stepChanged(int step);

protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;
    void closeEvent(QCloseEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    QWidget* buildWelcomePage();
    QWidget* buildHowItWorksPage();
    QWidget* buildPermissionPage();
    QWidget* buildReadyPage();
    QWidget* buildNavigation();
    void updateNavigation();
    void updatePermission();
    void restartPermissionSchedule();
    void stopPermissionSchedule();
    QCoro::Task<void> runPermissionSchedule(CancellationToken cancellation);
    QCoro::Task<bool> sleep(std::chrono::milliseconds duration, CancellationToken cancellation);
    void startDemoMeter();
    void advanceFade();
    void markCompleted();

    QSettings* defaults_;
    ConsoleClock* clock_;
    SystemAudioPermission* permission_;
    OpenSettings openSettings_;
    int step_ = 0;
    bool reduceMotion_ = false;
    bool shown_ = false;
    bool demoTicking_ = false;
    std::optional<TaskHandle> permissionTask_;
    SpringAnimation fade_{1.0, 0.002};
    ConsoleClock::Duration lastFadeFrame_{};

    QStackedWidget* pages_ = nullptr;
    QGraphicsOpacityEffect* pageOpacity_ = nullptr;
    QPushButton* back_ = nullptr;
    QPushButton* forward_ = nullptr;
    QWidget* dots_ = nullptr;
    SegmentedMeter* demoMeter_ = nullptr;
    SymbolView* permissionSymbol_ = nullptr;
    QLabel* permissionText_ = nullptr;
    QPushButton* allow_ = nullptr;
    QProgressBar* requesting_ = nullptr;
    QPushButton* openSettingsButton_ = nullptr;
    QLabel* readyText_ = nullptr;
    QPushButton* start_ = nullptr;
};

}  // namespace bw
