#include <gtest/gtest.h>

#include <QAccessible>
#include <QSignalSpy>

#include "interface/LevelMeterView.h"
#include "interface/ManualConsoleClock.h"
#include "interface/SegmentedMeter.h"

namespace bw {
namespace {

using std::chrono::milliseconds;

std::vector<int> litIndices(const std::vector<SegmentedMeter::Segment>& segments) {
    std::vector<int> lit;
    for (std::size_t i = 0; i < segments.size(); ++i) {
        if (segments[i].lit) {
            lit.push_back(static_cast<int>(i));
        }
    }
    return lit;
}

std::vector<int> range(int from, int to) {
    std::vector<int> values;
    for (int i = from; i < to; ++i) {
        values.push_back(i);
    }
    return values;
}

/// A meter on a clock that moves only when told.
struct Meter {
    ManualConsoleClock clock;
    SegmentedMeter meter;
    Meter() { meter.setClock(&clock); }
};

TEST(SegmentedMeterTest, SegmentCountFillsTheWidthWithoutATrailingGap) {
    struct Case {
        double width;
        int count;
    };
    const std::vector<Case> cases = {{0, 1},    {3, 1},  {4.9, 1},  {5, 1},   {12.9, 1},  {13, 2},
                                     {20.9, 2}, {21, 3}, {485, 61}, {-20, 1}, {1000, 125}};
    for (const auto& c : cases) {
        EXPECT_EQ(SegmentedMeter::segmentCount(c.width), c.count) << "width " << c.width;
    }
    // Three segments in 21 points: the last one ends exactly at the right edge.
    const auto segments = SegmentedMeter::segments(21, 10, 0, 0);
    ASSERT_EQ(segments.size(), 3u);
    EXPECT_EQ(segments.back().rect, QRectF(16, 0, 5, 10));
    EXPECT_EQ(SegmentedMeter::segments(2, 10, 0, 0).front().rect, QRectF(0, 0, 5, 10));
}

TEST(SegmentedMeterTest, SegmentsAreLitForLevelAndPeak) {
    struct Case {
        const char* what;
        double width;
        float level;
        float peak;
        std::vector<int> lit;
    };
    const std::vector<Case> cases = {
        {"silence", 485, 0.0f, 0.0f, {}},
        {"half of 61 rounds 30.5 up", 485, 0.5f, 0.0f, range(0, 31)},
        {"full scale lights all", 485, 1.0f, 0.0f, range(0, 61)},
        {"above full scale as full", 485, 1.7f, 0.0f, range(0, 61)},
        {"peak held above the bar", 485, 0.1f, 0.5f,
         [] {
             auto v = range(0, 6);  // 6.1 rounds to 6
             v.push_back(30);       // 0.5 × 61 = 30.5, rounded down
             return v;
         }()},
        {"peak at full scale is the last segment", 485, 0.0f, 1.0f, {60}},
        {"peak inside the bar adds nothing", 485, 0.5f, 0.2f, range(0, 31)},
        {"peak at 0.02 is dark", 485, 0.0f, 0.02f, {}},
        {"peak just above 0.02", 485, 0.0f, 0.021f, {1}},
        {"level rounds down below a half", 80, 0.04f, 0.0f, {}},
        {"level rounds up at a half", 80, 0.05f, 0.0f, {0}},
        {"one segment", 4, 1.0f, 1.0f, {0}},
        {"negative level", 80, -0.5f, 0.0f, {}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(litIndices(SegmentedMeter::segments(c.width, 10, c.level, c.peak)), c.lit)
            << c.what;
    }
}

TEST(SegmentedMeterTest, PeakFallsByOneStepPerChangeOfLevel) {
    struct Case {
        const char* what;
        std::vector<float> levels;
        float peak;
    };
    const std::vector<Case> cases = {
        {"rises with the level", {0.5f}, 0.5f},
        {"one change below", {0.5f, 0.1f}, 0.47f},
        {"three changes below", {0.5f, 0.1f, 0.2f, 0.1f}, 0.41f},
        {"a louder level takes over", {0.5f, 0.1f, 0.8f}, 0.8f},
        {"an equal value is no change", {0.5f, 0.1f, 0.1f, 0.1f}, 0.47f},
        {"from 0.05 to silence drops to zero", {0.05f, 0.0f}, 0.0f},
        {"silence above 0.04 keeps falling", {0.2f, 0.0f}, 0.17f},
        {"a quiet level keeps the peak", {0.05f, 0.002f}, 0.02f},
    };
    for (const auto& c : cases) {
        Meter m;
        for (const float level : c.levels) {
            m.meter.setLevel(level);
        }
        EXPECT_NEAR(m.meter.peak(), c.peak, 1e-6) << c.what;
        EXPECT_EQ(m.meter.level(), c.levels.back()) << c.what;
    }
}

TEST(SegmentedMeterTest, ClipLampHoldsTwoAndAHalfSecondsAfterTheLastOverload) {
    struct Event {
        int atMs;
        float level;
    };
    struct Case {
        const char* what;
        std::vector<Event> events;
        int onUntilMs;  // the lamp is lit from the first overload until this time; 0: never
    };
    const std::vector<Case> cases = {
        {"just below 0.98 never clips", {{0, 0.9799f}}, 0},
        {"exactly 0.98 clips", {{0, 0.98f}}, 2500},
        {"a long overload holds from its last level",
         {{0, 1.0f}, {100, 0.99f}, {1000, 1.2f}},
         3500},
        {"two overloads two seconds apart", {{0, 1.0f}, {2000, 0.98f}}, 4500},
        {"quiet levels don't prolong", {{0, 1.0f}, {1000, 0.5f}, {2000, 0.2f}}, 2500},
    };
    for (const auto& c : cases) {
        Meter m;
        QSignalSpy changes(&m.meter, &SegmentedMeter::clippedChanged);
        int now = 0;
        std::size_t next = 0;
        // Walk in 10 ms steps and check the lamp at each.
        for (; now <= c.onUntilMs + 500; now += 10) {
            while (next < c.events.size() && c.events[next].atMs == now) {
                m.meter.setLevel(c.events[next++].level);
            }
            EXPECT_EQ(m.meter.isClipped(), now < c.onUntilMs) << c.what << " at " << now << " ms";
            m.clock.advance(milliseconds(10));
        }
        EXPECT_EQ(changes.size(), c.onUntilMs > 0 ? 2 : 0) << c.what;  // on once, off once
    }
}

TEST(SegmentedMeterTest, AccessibilitySpeaksLevelPercentAndClipping) {
    struct Case {
        float level;
        const char* value;
        int current;  // the value interface's number
    };
    const std::vector<Case> cases = {
        {0.0f, "0 percent", 0},
        {0.257f, "25 percent", 25},  // cut, not rounded
        {0.999f, "99 percent, clipping", 99},
        {1.3f, "100 percent, clipping", 100},
        {0.5f, "50 percent, clipping", 50},  // the lamp still holds
    };
    Meter m;
    QAccessibleInterface* accessible = QAccessible::queryAccessibleInterface(&m.meter);
    ASSERT_NE(accessible, nullptr);
    EXPECT_EQ(accessible->text(QAccessible::Name), QString("Recording level"));
    EXPECT_EQ(accessible->childCount(), 0);
    QAccessibleValueInterface* value = accessible->valueInterface();
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(value->maximumValue().toInt(), 100);
    for (const auto& c : cases) {
        m.meter.setLevel(c.level);
        EXPECT_EQ(accessible->text(QAccessible::Value), QString(c.value)) << c.level;
        EXPECT_EQ(value->currentValue().toInt(), c.current) << c.level;
    }
    m.clock.advance(SegmentedMeter::clipHold);
    EXPECT_EQ(accessible->text(QAccessible::Value), QString("50 percent"));
}

TEST(LevelMeterViewTest, BarIsLevelTimesWidthGradedToRedAndSilentForAssistiveTechnology) {
    struct Case {
        float level;
        double lit;
    };
    const std::vector<Case> cases = {{0.0f, 0}, {0.25f, 50}, {1.0f, 200}, {2.0f, 200}, {-1.0f, 0}};
    LevelMeterView view;
    view.resize(200, LevelMeterView::barHeight);
    for (const auto& c : cases) {
        view.setLevel(c.level);
        EXPECT_DOUBLE_EQ(view.litWidth(), c.lit) << c.level;
    }
    EXPECT_EQ(view.height(), 5);

    QAccessibleInterface* accessible = QAccessible::queryAccessibleInterface(&view);
    ASSERT_NE(accessible, nullptr);
    EXPECT_TRUE(accessible->state().invisible);
}

}  // namespace
}  // namespace bw
