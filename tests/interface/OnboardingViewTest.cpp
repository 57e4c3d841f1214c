#include <gtest/gtest.h>

#include <QFile>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QSignalSpy>

#include "interface/ManualConsoleClock.h"
#include "interface/OnboardingView.h"
#include "interface/SegmentedMeter.h"
#include "interface/SymbolView.h"
#include "tests/app/FakeTapProbe.h"

namespace bw {
namespace {

using namespace std::chrono_literals;
using Status = SystemAudioPermission::Status;
using test::pumpFor;
using test::pumpUntil;

struct Walkthrough : test::OnboardingRig {
    ManualConsoleClock clock;
    std::unique_ptr<OnboardingView> view = std::make_unique<OnboardingView>(*controller, &clock);
    int settingsOpened = 0;

    Walkthrough() {
        controller->setOpenSettings([this] {
            ++settingsOpened;
            return true;
        });
        view->show();
    }

    /// Read from the disk, not the store's cache: the program may end any moment after.
    bool completed() const {
        QFile file(dir.filePath("defaults.ini"));
        return file.open(QIODevice::ReadOnly) &&
               file.readAll().contains("hasCompletedOnboarding=true");
    }

    void advance(std::chrono::milliseconds by) {
        clock.advance(by, 100ms);
        pumpFor(30);
    }
};

// How each step's row looks (which buttons, their words, the dots in place) is the walkthrough
// pictures' to judge; a hidden button is out of the keyboard's reach too.
TEST(OnboardingViewTest, NavigationRowFollowsTheStep) {
    struct Case {
        int step;
        bool back;
        bool forward;
        const char* dots;
    };
    const std::vector<Case> cases = {{0, false, true, "Step 1 of 4"},
                                     {1, true, true, "Step 2 of 4"},
                                     {2, true, true, "Step 3 of 4"},
                                     {3, true, false, "Step 4 of 4"}};
    Walkthrough w;
    EXPECT_EQ(w.view->minimumSize(), w.view->maximumSize());
    for (const auto& c : cases) {
        w.view->setStep(c.step);
        w.advance(1s);
        EXPECT_EQ(w.view->backButton()->isEnabled(), c.back) << c.step;
        EXPECT_EQ(w.view->forwardButton()->isEnabled(), c.forward) << c.step;
        EXPECT_EQ(w.view->stepDots()->accessibleName(), c.dots) << c.step;
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

TEST(OnboardingViewTest, ThePermissionStepShowsTheStatusAndDrivesTheSchedule) {
    Walkthrough w;
    w.view->setStep(1);
    EXPECT_FALSE(w.controller->isPermissionStepShown());
    w.view->setStep(OnboardingView::permissionStep);
    EXPECT_TRUE(w.controller->isPermissionStepShown());
    EXPECT_TRUE(w.view->allowButton()->isVisible());
    EXPECT_FALSE(w.view->openSettingsButton()->isVisible());

    // Allow: requesting (the row stays usable meanwhile), then the answer.
    w.probe->hold();
    w.view->allowButton()->click();
    EXPECT_TRUE(w.view->requestingIndicator()->isVisible());
    EXPECT_FALSE(w.view->allowButton()->isVisible());
    EXPECT_EQ(w.view->forwardButton()->text(), "Continue");
    EXPECT_TRUE(w.view->forwardButton()->isEnabled());
    w.probe->release();
    ASSERT_TRUE(pumpUntil([&] { return w.controller->permissionStatus() == Status::denied; }));
    EXPECT_FALSE(w.view->requestingIndicator()->isVisible());
    EXPECT_TRUE(w.view->openSettingsButton()->isVisible());
    w.view->openSettingsButton()->click();
    EXPECT_EQ(w.settingsOpened, 1);

    // Granted by a later check: the check mark, and the last step says so.
    w.probe->grant = true;
    w.appClock.advance(2s);
    ASSERT_TRUE(pumpUntil([&] { return w.controller->permissionStatus() == Status::granted; }));
    EXPECT_EQ(w.view->permissionSymbol()->symbol(), "checkmark.circle.fill");
    EXPECT_FALSE(w.view->openSettingsButton()->isVisible());
    w.view->setStep(3);
    EXPECT_FALSE(w.controller->isPermissionStepShown());
    EXPECT_EQ(w.view->readyText()->text(),
              "Tick a source, press Record, and Brightwave Record takes care of the rest.");

    // A hidden window runs no schedule.
    w.view->setStep(OnboardingView::permissionStep);
    w.view->hide();
    EXPECT_FALSE(w.controller->isPermissionStepShown());
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
