#include <gtest/gtest.h>

#include <QSignalSpy>

#include "app/AudioLevelTracker.h"
#include "app/RecordingTimer.h"
#include "tests/app/FakeClock.h"

namespace bw::test {
namespace {

using namespace std::chrono_literals;

std::vector<float> valuesOf(const QSignalSpy& spy) {
    std::vector<float> values;
    for (const auto& arguments : spy) {
        values.push_back(arguments.first().toFloat());
    }
    return values;
}

TEST(AudioLevelTrackerTest, StreamsHandEachLevelOnlyToTheirIDsSubscribersOfTheMoment) {
    AudioLevelTracker tracker;
    ASSERT_EQ(tracker.publisher("master"), tracker.publisher("master"));
    QSignalSpy master(tracker.publisher("master"), &LevelSubject::sent);
    QSignalSpy fader(tracker.publisher("app:a"), &LevelSubject::sent);

    tracker.update({{"master", 0.5f}, {"mic:m", 0.9f}});
    tracker.update({{"master", 0.25f}});
    QSignalSpy late(tracker.publisher("master"), &LevelSubject::sent);
    tracker.update({{"master", 0.75f}, {"app:a", 0.1f}});

    EXPECT_EQ(valuesOf(master), (std::vector<float>{0.5f, 0.25f, 0.75f}));
    EXPECT_EQ(valuesOf(late), std::vector<float>{0.75f});
    EXPECT_EQ(valuesOf(fader), std::vector<float>{0.1f});  // no entry, no value
    EXPECT_EQ(tracker.levelValues(),
              (AudioLevelTracker::Levels{{"master", 0.75f}, {"app:a", 0.1f}}));

    tracker.reset();
    EXPECT_TRUE(tracker.levelValues().empty());
    EXPECT_EQ(valuesOf(fader), (std::vector<float>{0.1f, 0.0f}));
    EXPECT_EQ(valuesOf(master).back(), 0.0f);
}

TEST(RecordingTimerTest, TextFormsCutToWholeSeconds) {
    struct Case {
        double seconds;
        const char* formatted;
        const char* compact;
    };
    for (const auto& c : {Case{0, "0:00:00", "00:00"}, Case{7.99, "0:00:07", "00:07"},
                          Case{754.9, "0:12:34", "12:34"}, Case{3599.9, "0:59:59", "59:59"},
                          Case{3600.0, "1:00:00", "1:00:00"}, Case{3725, "1:02:05", "1:02:05"},
                          Case{360000, "100:00:00", "100:00:00"}, Case{-3, "0:00:00", "00:00"}}) {
        EXPECT_EQ(RecordingTimer::formatted(c.seconds), c.formatted) << c.seconds;
        EXPECT_EQ(RecordingTimer::compact(c.seconds), c.compact) << c.seconds;
    }
}

TEST(RecordingTimerTest, TicksEveryHalfSecondFromTheStartDateAndNeverGoNegative) {
    auto clock = std::make_shared<FakeClock>();
    RecordingTimer timer(clock);
    std::vector<double> seen;
    QObject::connect(&timer, &RecordingTimer::elapsedChanged,
                     [&] { seen.push_back(timer.elapsed()); });

    timer.start(clock->now().addMSecs(-2000));
    EXPECT_EQ(seen, (std::vector<double>{0.0, 2.0}));  // reset, then the first tick at once
    clock->advance(499ms);
    EXPECT_EQ(seen.size(), 2u);
    clock->advance(1ms);
    EXPECT_EQ(seen.back(), 2.5);
    clock->advance(500ms);
    EXPECT_EQ(seen, (std::vector<double>{0.0, 2.0, 2.5, 3.0}));  // every tick, equal seconds too

    clock->shiftWallClock(-10s);  // the user sets the clock back
    clock->advance(500ms);
    EXPECT_EQ(timer.elapsed(), 0.0);
    clock->shiftWallClock(10s);
    clock->advance(500ms);
    EXPECT_EQ(timer.elapsed(), 4.0);

    timer.stop();
    clock->advance(5s);
    EXPECT_EQ(timer.elapsed(), 4.0);
    EXPECT_TRUE(clock->pendingSleeps().empty());

    seen.clear();
    timer.start(clock->now().addMSecs(-1000));
    EXPECT_EQ(seen, (std::vector<double>{0.0, 1.0}));
}

}  // namespace
}  // namespace bw::test
