#include <gtest/gtest.h>

#include <QFile>

#include <QApplication>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <atomic>
#include <condition_variable>
#include <mutex>

#include "app/AppState.h"
#include "capture/CoreAudioError.h"
#include "capture/SystemAudioPermission.h"
#include "interface/ManualConsoleClock.h"
#include "interface/OnboardingView.h"
#include "interface/SegmentedMeter.h"
#include "interface/SymbolView.h"
#include "tests/app/QtTestSupport.h"

namespace bw {
namespace {

using namespace std::chrono_literals;
using Status = SystemAudioPermission::Status;
using test::pumpFor;
using test::pumpUntil;

/// A probe whose answer the test sets and that can be held inside an attempt.
class FakeProbe : public SystemAudioTapProbe {
public:
    Expected<void, ErrorRef> makeTap() override {
        std::unique_lock guard(lock_);
        ++attempts;
        opened_.wait(guard, [this] { return !held_; });
        if (grant) {
            return {};
        }
        return Unexpected(makeError(CoreAudioError(-1, "create permission-check tap")));
    }
    void hold() {
        std::lock_guard guard(lock_);
        held_ = true;
    }
    void release() {
        {
            std::lock_guard guard(lock_);
            held_ = false;
        }
        opened_.notify_all();
    }

    std::atomic<int> attempts{0};
    std::atomic<bool> grant{false};

private:
    std::mutex lock_;
    std::condition_variable opened_;
    bool held_ = false;
};

struct Walkthrough {
    QTemporaryDir dir;
    QSettings defaults{dir.filePath("defaults.ini"), QSettings::IniFormat};
    ManualConsoleClock clock;
    std::shared_ptr<FakeProbe> probe = std::make_shared<FakeProbe>();
    std::unique_ptr<OnboardingView> view;
    std::vector<Status> statuses;
    int settingsOpened = 0;

    explicit Walkthrough(bool attemptedBefore = false) {
        if (attemptedBefore) {
            defaults.setValue(SystemAudioPermission::kAttemptedKey, true);
        }
        view = std::make_unique<OnboardingView>(probe, &defaults, &clock);
        view->setOpenSettings([this] {
            ++settingsOpened;
            return true;
        });
        QObject::connect(&view->permission(), &SystemAudioPermission::statusChanged,
                         [this] { statuses.push_back(view->permission().status()); });
        view->show();
    }

    ~Walkthrough() {
        probe->release();
        view.reset();
        // An attempt still under way finishes before the probe goes.
        pumpFor(20);
    }

    /// Read from the disk, not the store's cache: the program may end any moment after.
    bool completed() const {
        QFile file(dir.filePath("defaults.ini"));
        return file.open(QIODevice::ReadOnly) &&
               file.readAll().contains("hasCompletedOnboarding=true");
    }

    /// Moves the clock on and lets any attempt it started run and report.
    void advance(std::chrono::milliseconds by) {
        clock.advance(by, 100ms);
        pumpFor(30);
    }

    /// Waits for the status to have changed `count` times in all.
    bool waitForStatuses(std::size_t count) {
        return pumpUntil([&] { return statuses.size() >= count; });
    }
};

TEST(OnboardingViewTest, NavigationRowFollowsTheStep) {
    struct Case {
        int step;
        bool backShown;
        bool forwardShown;
        const char* forward;
        const char* dots;
    };
    const std::vector<Case> cases = {
        {0, false, true, "Continue", "Step 1 of 4"},
        {1, true, true, "Continue", "Step 2 of 4"},
        {2, true, true, "Skip", "Step 3 of 4"},  // nothing known about the permission yet
        {3, true, false, "Continue", "Step 4 of 4"},
    };
    Walkthrough w;
    EXPECT_EQ(w.view->minimumSize(), QSize(520, 560));
    EXPECT_EQ(w.view->maximumSize(), QSize(520, 560));
    const QPoint dotsAtStart = w.view->stepDots()->pos();
    for (const auto& c : cases) {
        w.view->setStep(c.step);
        w.advance(1s);
        EXPECT_EQ(w.view->backButton()->isVisible(), c.backShown) << c.step;
        EXPECT_EQ(w.view->backButton()->isEnabled(), c.backShown) << c.step;
        EXPECT_EQ(w.view->forwardButton()->isVisible(), c.forwardShown) << c.step;
        EXPECT_EQ(w.view->forwardButton()->isEnabled(), c.forwardShown) << c.step;
        EXPECT_EQ(w.view->forwardButton()->text(), c.forward) << c.step;
        EXPECT_EQ(w.view->stepDots()->accessibleName(), c.dots) << c.step;
        // Hidden buttons keep their room: the dots never move.
        EXPECT_EQ(w.view->stepDots()->pos(), dotsAtStart) << c.step;
    }

    // The buttons walk the steps and stop at the ends.
    w.view->setStep(0);
    w.view->forwardButton()->click();
    w.view->forwardButton()->click();
    EXPECT_EQ(w.view->step(), 2);
    w.view->backButton()->click();
    EXPECT_EQ(w.view->step(), 1);
    w.view->setStep(7);
    EXPECT_EQ(w.view->step(), 3);
}

TEST(OnboardingViewTest, WithoutAnEarlierAttemptNothingIsProbedBeforeTheButton) {
    Walkthrough w;
    w.probe->grant = true;
    w.view->setStep(OnboardingView::permissionStep);
    EXPECT_TRUE(w.view->isPermissionScheduleRunning());
    w.advance(7s);
    EXPECT_EQ(w.probe->attempts.load(), 0);
    EXPECT_TRUE(w.view->allowButton()->isVisible());
    EXPECT_EQ(w.view->forwardButton()->text(), "Skip");

    w.probe->hold();
    w.view->allowButton()->click();
    EXPECT_EQ(w.view->permission().status(), Status::requesting);
    EXPECT_TRUE(w.view->requestingIndicator()->isVisible());
    EXPECT_FALSE(w.view->allowButton()->isVisible());
    EXPECT_EQ(w.view->forwardButton()->text(), "Continue");
    EXPECT_TRUE(w.view->forwardButton()->isEnabled());  // the row stays usable meanwhile
    w.probe->release();
    ASSERT_TRUE(w.waitForStatuses(2));
    EXPECT_EQ(w.statuses, (std::vector<Status>{Status::requesting, Status::granted}));
    EXPECT_EQ(w.view->permissionSymbol()->symbol(), "checkmark.circle.fill");
    EXPECT_FALSE(w.view->requestingIndicator()->isVisible());

    // Granted: the schedule only sleeps.
    w.advance(9s);
    EXPECT_EQ(w.probe->attempts.load(), 1);
}

TEST(OnboardingViewTest, AnEarlierAttemptGetsOneRecheckAtOnceWithoutRequesting) {
    Walkthrough w(true);
    w.probe->grant = true;
    w.view->setStep(1);
    w.advance(3s);
    EXPECT_EQ(w.probe->attempts.load(), 0);  // only the permission step probes
    w.view->setStep(OnboardingView::permissionStep);
    ASSERT_TRUE(w.waitForStatuses(1));
    EXPECT_EQ(w.statuses, (std::vector<Status>{Status::granted}));
    EXPECT_EQ(w.view->forwardButton()->text(), "Continue");
    w.advance(9s);
    EXPECT_EQ(w.probe->attempts.load(), 1);
}

TEST(OnboardingViewTest, WhileDeniedOneAttemptEveryTwoSecondsAfterTheLastOneEnded) {
    Walkthrough w(true);
    w.view->setStep(OnboardingView::permissionStep);
    ASSERT_TRUE(w.waitForStatuses(1));
    EXPECT_EQ(w.view->permission().status(), Status::denied);
    EXPECT_TRUE(w.view->openSettingsButton()->isVisible());
    EXPECT_FALSE(w.view->allowButton()->isVisible());
    EXPECT_EQ(w.probe->attempts.load(), 1);

    w.advance(1900ms);
    EXPECT_EQ(w.probe->attempts.load(), 1);
    // The second attempt takes 1.5 seconds of its own.
    w.probe->hold();
    w.advance(100ms);
    ASSERT_TRUE(pumpUntil([&] { return w.probe->attempts.load() == 2; }));
    w.advance(1500ms);
    w.probe->release();
    ASSERT_TRUE(w.waitForStatuses(2));
    // The next sleep began when that attempt ended, not when it began.
    w.advance(1900ms);
    EXPECT_EQ(w.probe->attempts.load(), 2);
    w.advance(100ms);
    ASSERT_TRUE(w.waitForStatuses(3));
    EXPECT_EQ(w.probe->attempts.load(), 3);

    // The status survives a step away and back; away from the step nothing is probed.
    w.view->setStep(3);
    EXPECT_FALSE(w.view->isPermissionScheduleRunning());
    w.advance(10s);
    EXPECT_EQ(w.probe->attempts.load(), 3);
    w.view->setStep(OnboardingView::permissionStep);
    EXPECT_EQ(w.view->permission().status(), Status::denied);

    // The user allows it in the desktop's settings: the next check sees it, then all is quiet.
    w.probe->grant = true;
    w.advance(2s);
    ASSERT_TRUE(w.waitForStatuses(4));
    EXPECT_EQ(w.view->permission().status(), Status::granted);
    w.view->setStep(3);
    EXPECT_EQ(w.view->readyText()->text(),
              "Tick a source, press Record, and Brightwave Record takes care of the rest.");
    w.view->setStep(OnboardingView::permissionStep);
    w.advance(8s);
    EXPECT_EQ(w.probe->attempts.load(), 4);

    // A hidden window probes no more.
    w.probe->grant = false;
    w.view->hide();
    EXPECT_FALSE(w.view->isPermissionScheduleRunning());
}

TEST(OnboardingViewTest, OpenSystemSettingsUsesTheDesktopsOwnSettingsWhereFound) {
    Walkthrough w(true);
    w.view->setStep(OnboardingView::permissionStep);
    ASSERT_TRUE(w.waitForStatuses(1));
    w.view->openSettingsButton()->click();
    EXPECT_EQ(w.settingsOpened, 1);

    struct Case {
        const char* desktops;
        QStringList installed;
        QString program;  // empty: nothing to open
        QStringList arguments;
    };
    const QStringList everything = {"gnome-control-center", "systemsettings", "pavucontrol"};
    const std::vector<Case> cases = {
        {"ubuntu:GNOME", everything, "/bin/gnome-control-center", {"sound"}},
        {"KDE", everything, "/bin/systemsettings", {"kcm_pulseaudio"}},
        {"XFCE", everything, "/bin/pavucontrol", {}},
        {"XFCE", {"systemsettings"}, "/bin/systemsettings", {"kcm_pulseaudio"}},
        {"GNOME", {"pwvucontrol"}, "/bin/pwvucontrol", {}},
        {"GNOME", {}, "", {}},
    };
    for (const auto& c : cases) {
        const auto command =
            OnboardingView::desktopAudioSettingsCommand(c.desktops, [&](const QString& name) {
                return c.installed.contains(name) ? "/bin/" + name : QString();
            });
        ASSERT_EQ(command.has_value(), !c.program.isEmpty()) << c.desktops;
        if (command) {
            EXPECT_EQ(command->program, c.program) << c.desktops;
            EXPECT_EQ(command->arguments, c.arguments) << c.desktops;
        }
    }
}

TEST(OnboardingViewTest, EveryWayOfClosingCountsAsCompleted) {
    struct Case {
        const char* what;
        int step;
        std::function<void(OnboardingView&)> close;
        bool completed;
    };
    const std::vector<Case> cases = {
        {"closed at the first step", 0, [](OnboardingView& v) { v.close(); }, true},
        {"hidden at the permission step", 2, [](OnboardingView& v) { v.hide(); }, true},
        {"the final button", 3, [](OnboardingView& v) { v.startButton()->click(); }, true},
        {"left open", 1, [](OnboardingView&) {}, false},
    };
    for (const auto& c : cases) {
        Walkthrough w;
        w.view->setStep(c.step);
        c.close(*w.view);
        EXPECT_EQ(w.completed(), c.completed) << c.what;
        EXPECT_EQ(w.view->isVisible(), !c.completed) << c.what;
    }
    // Destroying the window while it shows counts too.
    Walkthrough w;
    w.view.reset();
    EXPECT_TRUE(w.completed());
}

TEST(OnboardingViewTest, DemoMeterSwingsUnlessMotionIsReduced) {
    Walkthrough w;
    w.view->setStep(1);
    std::vector<float> levels;
    for (int i = 0; i < 60; ++i) {
        w.clock.advance(50ms);
        levels.push_back(w.view->demoMeter()->level());
    }
    const auto [low, high] = std::minmax_element(levels.begin(), levels.end());
    EXPECT_GE(*low, 0.08f);
    EXPECT_LE(*high, 0.68f);
    EXPECT_GT(*high - *low, 0.4f);  // three seconds cover a whole swing

    w.view->setReduceMotion(true);
    w.clock.advance(2s);
    EXPECT_FLOAT_EQ(w.view->demoMeter()->level(), 0.4f);
}

}  // namespace
}  // namespace bw

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
