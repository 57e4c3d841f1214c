#include <gtest/gtest.h>

#include <QAccessible>

#include "interface/ArmIndicator.h"
#include "interface/ManualConsoleClock.h"
#include "interface/Theme.h"
#include "tests/interface/WidgetImages.h"

namespace bw {
namespace {

using std::chrono::milliseconds;

TEST(ArmIndicatorTest, LampShowsArmingAndRecording) {
    struct Case {
        const char* what;
        bool armed;
        bool recording;
        QColor center;  // pixel at the centre once settled; alpha 0 for none
        bool ringVisible;
    };
    const std::vector<Case> cases = {
        {"unarmed: empty ring", false, false, QColor(0, 0, 0, 0), true},
        {"unarmed while recording: empty ring", false, true, QColor(0, 0, 0, 0), true},
        {"armed: accent lamp", true, false, Theme::accent(), false},
        {"armed while recording: red lamp", true, true, Theme::signalRed(), false},
    };
    for (const auto& c : cases) {
        ManualConsoleClock clock;
        ArmIndicator lamp;
        lamp.setClock(&clock);
        lamp.setRecording(c.recording);
        lamp.setArmed(c.armed);
        clock.advance(milliseconds(2000));
        EXPECT_EQ(lamp.lampProgress(), c.armed ? 1.0 : 0.0) << c.what;
        const QImage image = test::paintedAlone(lamp);
        EXPECT_TRUE(test::nearColor(image.pixelColor(7, 7), c.center)) << c.what;
        // The unarmed ring: a secondary-coloured line at the edge.
        const int edgeAlpha = image.pixelColor(7, 0).alpha();
        if (c.ringVisible) {
            EXPECT_GT(edgeAlpha, 40) << c.what;
            EXPECT_LT(edgeAlpha, 200) << c.what;
        }
    }
}

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
