#include <gtest/gtest.h>

#include <QTest>

#include "interface/ManualConsoleClock.h"
#include "interface/SpringAnimation.h"
#include "interface/Theme.h"

namespace bw {
namespace {

using std::chrono::milliseconds;

struct Motion {
    double highest = 0;
    double lowest = 1e9;
    double settledAfter = -1;  // seconds
};

Motion run(Spring spring, double from, double to, double seconds = 5.0, double frame = 1.0 / 60) {
    SpringAnimation animation(from);
    animation.animateTo(to, spring);
    Motion result;
    for (double t = frame; t <= seconds; t += frame) {
        const bool moving = animation.step(frame);
        result.highest = std::max(result.highest, animation.value());
        result.lowest = std::min(result.lowest, animation.value());
        if (!moving && result.settledAfter < 0) {
            result.settledAfter = t;
        }
    }
    return result;
}

TEST(SpringAnimationTest, SpringsOfTheConsoleSettleAsTheirDampingSays) {
    struct Case {
        const char* what;
        Spring spring;
        bool overshoots;
        double settlesWithin;  // seconds
    };
    const std::vector<Case> cases = {
        {"detent snap", Theme::detentSnap(), true, 0.6},
        {"record glyph", Theme::recordGlyph(), true, 1.5},
        {"record press", Theme::recordPress(), true, 1.2},
        {"arm lamp", Theme::armLamp(), true, 1.5},
        {"default", Theme::defaultAnimation(), false, 2.0},
        {"overdamped", Spring{0.3, 1.6, 0}, false, 2.0},
    };
    for (const auto& c : cases) {
        const Motion result = run(c.spring, 0.0, 1.0);
        EXPECT_EQ(result.highest > 1.0, c.overshoots) << c.what;
        EXPECT_GE(result.lowest, 0.0 - 1e-9) << c.what;
        EXPECT_GT(result.settledAfter, 0) << c.what;
        EXPECT_LT(result.settledAfter, c.settlesWithin) << c.what;
    }
}

TEST(SpringAnimationTest, FrameRateDoesNotChangeTheMotion) {
    SpringAnimation fine(0.0);
    SpringAnimation coarse(0.0);
    fine.animateTo(1.0, Theme::recordGlyph());
    coarse.animateTo(1.0, Theme::recordGlyph());
    for (int i = 0; i < 12; ++i) {
        fine.step(0.01);
    }
    coarse.step(0.06);
    coarse.step(0.06);
    EXPECT_NEAR(fine.value(), coarse.value(), 1e-9);
    // One very long frame lands on the target instead of blowing up.
    coarse.step(100.0);
    EXPECT_EQ(coarse.value(), 1.0);
    EXPECT_FALSE(coarse.isMoving());
}

TEST(SpringAnimationTest, RetargetingKeepsPositionAndVelocity) {
    SpringAnimation animation(0.0);
    animation.animateTo(1.0, Theme::armLamp());
    animation.step(0.05);
    const double position = animation.value();
    animation.animateTo(0.0, Theme::armLamp());
    EXPECT_EQ(animation.value(), position);
    animation.step(0.01);
    EXPECT_GT(animation.value(), position);  // still moving up for a moment
    animation.jumpTo(0.3);
    EXPECT_EQ(animation.value(), 0.3);
    EXPECT_FALSE(animation.isMoving());
    EXPECT_FALSE(animation.step(1.0));
}

// The curve between is the console pictures' to judge.
TEST(ThemeTest, EaseOutHoldsItsEndsOutsideTheMotion) {
    const std::vector<std::pair<double, double>> cases = {{-1, 0}, {0, 0}, {1, 1}, {2, 1}};
    for (const auto& [t, value] : cases) {
        EXPECT_NEAR(Theme::easeOut(t), value, 1e-9) << t;
    }
}

TEST(ManualConsoleClockTest, DeadlinesFireInOrderAtTheirTimeAndOnlyForLiveContexts) {
    ManualConsoleClock clock;
    const auto start = clock.now();
    std::vector<std::pair<int, long long>> fired;  // (tag, ms after start)
    auto record = [&](int tag) {
        return [&, tag] {
            fired.emplace_back(
                tag, std::chrono::duration_cast<milliseconds>(clock.now() - start).count());
        };
    };
    QObject alive;
    auto* doomed = new QObject;
    clock.callAt(start + milliseconds(250), &alive, record(2));
    clock.callAt(start + milliseconds(100), &alive, record(1));
    clock.callAt(start + milliseconds(100), doomed, record(9));
    clock.callAt(start + milliseconds(250), &alive, record(3));
    clock.callAt(start - milliseconds(5), &alive, record(0));  // already due
    delete doomed;
    clock.advance(milliseconds(99));
    EXPECT_EQ(fired, (std::vector<std::pair<int, long long>>{{0, 0}}));
    clock.advance(milliseconds(1000));
    EXPECT_EQ(fired,
              (std::vector<std::pair<int, long long>>{{0, 0}, {1, 100}, {2, 250}, {3, 250}}));
    EXPECT_EQ(clock.pendingDeadlines(), 0u);
    EXPECT_EQ(clock.now() - start, milliseconds(1099));
}

TEST(ManualConsoleClockTest, FramesComeOnlyWhenAskedFor) {
    ManualConsoleClock clock;
    int frames = 0;
    int wanted = 3;
    QObject::connect(&clock, &ConsoleClock::frame, [&] {
        ++frames;
        if (--wanted > 0) {
            clock.requestFrame();
        }
    });
    clock.advance(milliseconds(100));
    EXPECT_EQ(frames, 0);
    clock.requestFrame();
    clock.advance(milliseconds(1000));
    EXPECT_EQ(frames, 3);
    EXPECT_FALSE(clock.framePending());
}

TEST(SystemConsoleClockTest, DeadlinesNeverFireEarly) {
    ConsoleClock* clock = ConsoleClock::system();
    const auto deadline = clock->now() + milliseconds(30);
    bool fired = false;
    ConsoleClock::Duration firedAt{};
    QObject context;
    clock->callAt(deadline, &context, [&] {
        fired = true;
        firedAt = clock->now();
    });
    ASSERT_TRUE(QTest::qWaitFor([&] { return fired; }, 2000));
    EXPECT_GE(firedAt, deadline);
}

}  // namespace
}  // namespace bw
