#pragma once

#include <QWidget>
#include <chrono>

#include "interface/ConsoleClock.h"
#include "interface/SpringAnimation.h"

class QLabel;
class QProgressBar;
class QPushButton;
class QStackedWidget;
class QGraphicsOpacityEffect;

namespace bw {

class ConsoleClock;
class OnboardingController;
class SegmentedMeter;
class SymbolView;

/// The first-run walkthrough: four steps in a fixed 520 × 560 window on the console panel (what
/// the program does, how it works, the permission to record system audio, the way in), with
/// "Back", step dots and a forward button along the bottom.
///
/// The view shows the walkthrough's state and forwards input; `OnboardingController` does the
/// work: the permission and its schedule (running while the permission step is on screen: the
/// step shown and the widget visible), the desktop's sound settings, and the note that the
/// walkthrough was seen, made however the window goes (closed, hidden, the final button,
/// destroyed after being shown).
///
/// Works as a top-level window of its own: the final button closes the window the view is in.
/// GUI thread only.
class OnboardingView : public QWidget {
    Q_OBJECT
    Q_PROPERTY(int step READ step WRITE setStep NOTIFY stepChanged)

public:
    static constexpr int stepCount = 4;
    static constexpr int permissionStep = 2;
    static constexpr int fixedWidth = 520;
    static constexpr int fixedHeight = 560;
    /// The demonstration meter of the second step is redrawn at most this often.
    static constexpr std::chrono::milliseconds demoMeterInterval{50};

    /// `controller` must outlive the view (make the view its parent); `clock` times the step
    /// fade and the demonstration meter, the system one by default.
    explicit OnboardingView(OnboardingController& controller, ConsoleClock* clock = nullptr,
                            QWidget* parent = nullptr);
    ~OnboardingView() override;

    OnboardingController& controller() const { return controller_; }

    int step() const { return step_; }
    /// Moves to `step` (clamped to 0…3), as the navigation buttons do, with the step fade.
    void setStep(int step);

    /// With reduced motion the demonstration meter stands still at 0.4; the step fade stays.
    bool reduceMotion() const { return reduceMotion_; }
    void setReduceMotion(bool reduce);

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
    void updatePermissionStepShown();
    void startDemoMeter();
    void advanceFade();

    OnboardingController& controller_;
    ConsoleClock* clock_;
    int step_ = 0;
    bool reduceMotion_ = false;
    bool shown_ = false;
    bool demoTicking_ = false;
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
