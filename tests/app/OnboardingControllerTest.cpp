#include "app/OnboardingController.h"

#include <gtest/gtest.h>

#include "tests/app/FakeTapProbe.h"

namespace bw {
namespace {

using namespace std::chrono_literals;
using Status = SystemAudioPermission::Status;
using test::pumpFor;
using test::pumpUntil;

struct Walkthrough : test::OnboardingRig {
    std::vector<Status> statuses;

    explicit Walkthrough(bool attemptedBefore = false) : OnboardingRig(attemptedBefore) {
        QObject::connect(controller.get(), &OnboardingController::permissionStatusChanged,
                         [this] { statuses.push_back(controller->permissionStatus()); });
    }

    /// Moves the clock on and lets any attempt it started run and report.
    void advance(std::chrono::milliseconds by) {
        for (auto step = 0ms; step < by; step += 100ms) {
            appClock.advance(std::min(100ms, by - step));
            pumpFor(1);
        }
        pumpFor(30);
    }

    bool waitForStatuses(std::size_t count) {
        return pumpUntil([&] { return statuses.size() >= count; });
    }
};

TEST(OnboardingControllerTest, WithoutAnEarlierAttemptNothingIsProbedBeforeTheRequest) {
    Walkthrough w;
    w.probe->grant = true;
    w.controller->setPermissionStepShown(true);
    EXPECT_TRUE(w.controller->isPermissionScheduleRunning());
    w.advance(7s);
    EXPECT_EQ(w.probe->attempts.load(), 0);

    w.probe->hold();
    w.controller->requestPermission();
    EXPECT_EQ(w.controller->permissionStatus(), Status::requesting);
    w.probe->release();
    ASSERT_TRUE(w.waitForStatuses(2));
    EXPECT_EQ(w.statuses, (std::vector<Status>{Status::requesting, Status::granted}));
}

TEST(OnboardingControllerTest, WhileDeniedOneAttemptEveryTwoSecondsAfterTheLastOneEnded) {
    Walkthrough w(true);
    w.controller->setPermissionStepShown(true);
    ASSERT_TRUE(w.waitForStatuses(1));
    EXPECT_EQ(w.controller->permissionStatus(), Status::denied);
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

    // The status survives the step leaving and coming back; away from it nothing is probed.
    w.controller->setPermissionStepShown(false);
    EXPECT_FALSE(w.controller->isPermissionScheduleRunning());
    w.advance(10s);
    EXPECT_EQ(w.probe->attempts.load(), 3);
    w.controller->setPermissionStepShown(true);
    EXPECT_EQ(w.controller->permissionStatus(), Status::denied);

    // The user allows it in the desktop's settings: the next check sees it, then all is quiet.
    w.probe->grant = true;
    w.advance(2s);
    ASSERT_TRUE(w.waitForStatuses(4));
    EXPECT_EQ(w.controller->permissionStatus(), Status::granted);
    w.advance(8s);
    EXPECT_EQ(w.probe->attempts.load(), 4);
}

TEST(OnboardingControllerTest, SoundSettingsAreTheDesktopsOwnWhereFound) {
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
            OnboardingController::desktopAudioSettingsCommand(c.desktops, [&](const QString& name) {
                return c.installed.contains(name) ? "/bin/" + name : QString();
            });
        ASSERT_EQ(command.has_value(), !c.program.isEmpty()) << c.desktops;
        if (command) {
            EXPECT_EQ(command->program, c.program) << c.desktops;
            EXPECT_EQ(command->arguments, c.arguments) << c.desktops;
        }
    }
}

}  // namespace
}  // namespace bw
