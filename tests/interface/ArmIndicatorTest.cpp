#include <gtest/gtest.h>

#include <QAccessible>

#include "interface/ArmIndicator.h"
#include "interface/ManualConsoleClock.h"
#include "interface/Theme.h"

namespace bw {
namespace {

using std::chrono::milliseconds;

TEST(ArmIndicatorTest, ArmingSpringsWhileRecordingOnlyRecolours) {
    ManualConsoleClock clock;
    ArmIndicator lamp;
    lamp.setClock(&clock);
    EXPECT_EQ(lamp.size(), QSize(14, 14));
    lamp.setArmed(true);
    clock.advance(milliseconds(50));
    EXPECT_GT(lamp.lampProgress(), 0.0);
    EXPECT_LT(lamp.lampProgress(), 1.0);
    double highest = 0;
    for (int i = 0; i < 40; ++i) {
        clock.advance(milliseconds(16));
        highest = std::max(highest, lamp.lampProgress());
    }
    EXPECT_GT(highest, 1.0);  // damping 0.6 bounces
    clock.advance(milliseconds(2000));
    EXPECT_EQ(lamp.lampProgress(), 1.0);
    EXPECT_FALSE(clock.framePending());

    EXPECT_EQ(lamp.lampColor(), Theme::accent());
    lamp.setRecording(true);
    EXPECT_EQ(lamp.lampColor(), Theme::signalRed());  // at once, no motion
    EXPECT_FALSE(clock.framePending());
    EXPECT_EQ(lamp.lampProgress(), 1.0);

    lamp.setArmed(false);
    clock.advance(milliseconds(2000));
    EXPECT_EQ(lamp.lampProgress(), 0.0);
}

TEST(ArmIndicatorTest, LampIsHiddenFromAssistiveTechnology) {
    ArmIndicator lamp;
    QAccessibleInterface* accessible = QAccessible::queryAccessibleInterface(&lamp);
    ASSERT_NE(accessible, nullptr);
    EXPECT_TRUE(accessible->state().invisible);
}

}  // namespace
}  // namespace bw
