#include <gtest/gtest.h>

#include <QAccessible>
#include <QApplication>
#include <QMouseEvent>
#include <QSignalSpy>

#include "interface/ChannelFader.h"
#include "interface/ManualConsoleClock.h"

namespace bw {
namespace {

using std::chrono::milliseconds;

// Track coordinates: 0 is the left end of the 170-point track, which starts 6 points in.
void mouse(ChannelFader& fader, QEvent::Type type, double trackX,
           Qt::MouseButtons buttons = Qt::LeftButton) {
    const QPointF local(trackX + ChannelFader::hitMargin, 13);
    QMouseEvent event(type, local, fader.mapToGlobal(local),
                      type == QEvent::MouseMove ? Qt::NoButton : Qt::LeftButton, buttons,
                      Qt::NoModifier);
    QApplication::sendEvent(&fader, &event);
}

double trackXFor(double value) {
    return 170.0 * value / 1.5;
}

struct Rig {
    ManualConsoleClock clock;
    ChannelFader fader;
    QSignalSpy edits{&fader, &ChannelFader::valueEdited};
    QSignalSpy ticks{&fader, &ChannelFader::detentTicked};

    Rig() {
        fader.setClock(&clock);
        fader.resize(fader.sizeHint());
    }

    std::vector<float> editedValues() const {
        std::vector<float> values;
        for (const auto& args : edits) {
            values.push_back(args.at(0).toFloat());
        }
        return values;
    }
};

// The frame at its size hint, the track inside it and the unity mark are the console-widget
// picture's to judge; the clicks below land by the same measures.
TEST(ChannelFaderTest, TheTrackFollowsTheFrameInsideItsMargins) {
    Rig rig;
    EXPECT_EQ(rig.fader.value(), 1.0f);

    rig.fader.resize(312, 30);
    EXPECT_EQ(rig.fader.faderSize(), QSizeF(300, 18));
    rig.fader.resize(12, 40);  // no width left inside the margins: the last size stays
    EXPECT_EQ(rig.fader.faderSize(), QSizeF(300, 18));
}

// The detent's pull on a click is the drags' below to judge: press and drag share one path.
TEST(ChannelFaderTest, AClickSetsTheValueUnderThePointer) {
    struct Case {
        const char* what;
        double trackX;
        float value;
    };
    const std::vector<Case> cases = {
        {"left end", 0, 0.0f},
        {"a third", 170.0 / 3, 0.5f},
        {"right end", 170, 1.5f},
        {"beyond the right end pins", 200, 1.5f},
        {"on the margin left of the track pins", -6, 0.0f},
    };
    for (const auto& c : cases) {
        Rig rig;
        rig.fader.setValue(0.3f);
        mouse(rig.fader, QEvent::MouseButtonPress, c.trackX);
        mouse(rig.fader, QEvent::MouseButtonRelease, c.trackX, Qt::NoButton);
        EXPECT_NEAR(rig.fader.value(), c.value, 1e-5) << c.what;
        EXPECT_EQ(rig.ticks.size(), 0) << c.what;
        ASSERT_EQ(rig.edits.size(), 1) << c.what;
        EXPECT_NEAR(rig.editedValues().front(), c.value, 1e-5) << c.what;
    }
}

TEST(ChannelFaderTest, DetentTicksOncePerEntryAndPinsTheValueAtUnity) {
    struct Case {
        const char* what;
        std::vector<double> dragValues;  // pointer positions as values along the track
        std::vector<float> edited;
        int ticks;
        bool inDetentAfter;
    };
    const std::vector<Case> cases = {
        {"two clicks at the mark", {1.0, 1.0}, {1.0f, 1.0f}, 1, true},
        {"drag through left to right",
         {0.8, 0.9, 0.96, 0.99, 1.02, 1.049, 1.06, 1.2},
         {0.8f, 0.9f, 1.0f, 1.0f, 1.0f, 1.0f, 1.06f, 1.2f},
         1,
         false},
        {"drag through right to left", {1.3, 1.03, 0.97, 0.9}, {1.3f, 1.0f, 1.0f, 0.9f}, 1, false},
        {"out and back in ticks again", {0.99, 1.2, 1.01}, {1.0f, 1.2f, 1.0f}, 2, true},
    };
    for (const auto& c : cases) {
        Rig rig;
        rig.fader.setValue(0.5f);
        // Two clicks press twice; a drag presses once and moves.
        const bool clicks = c.dragValues.size() == 2;
        for (std::size_t i = 0; i < c.dragValues.size(); ++i) {
            const double x = trackXFor(c.dragValues[i]);
            mouse(rig.fader, i == 0 || clicks ? QEvent::MouseButtonPress : QEvent::MouseMove, x);
        }
        const auto edited = rig.editedValues();
        ASSERT_EQ(edited.size(), c.edited.size()) << c.what;
        for (std::size_t i = 0; i < edited.size(); ++i) {
            EXPECT_NEAR(edited[i], c.edited[i], 1e-5) << c.what << " change " << i;
        }
        EXPECT_EQ(rig.ticks.size(), c.ticks) << c.what;
        // The end of a drag changes nothing.
        mouse(rig.fader, QEvent::MouseButtonRelease, 0, Qt::NoButton);
        EXPECT_EQ(rig.fader.inDetent(), c.inDetentAfter) << c.what;
    }
}

TEST(ChannelFaderTest, KnobSpringsIntoTheDetentAndJumpsElsewhere) {
    Rig rig;
    rig.fader.setValue(0.5f);
    EXPECT_NEAR(rig.fader.knobX(), trackXFor(0.5), 1e-9);
    mouse(rig.fader, QEvent::MouseButtonPress, trackXFor(0.97));
    EXPECT_EQ(rig.fader.value(), 1.0f);                    // the value is unity at once
    EXPECT_NEAR(rig.fader.knobX(), trackXFor(0.5), 1e-9);  // the knob hasn't moved yet
    rig.clock.advance(milliseconds(48));
    EXPECT_GT(rig.fader.knobX(), trackXFor(0.6));
    EXPECT_LT(rig.fader.knobX(), trackXFor(1.0));
    rig.clock.advance(milliseconds(1000));
    EXPECT_NEAR(rig.fader.knobX(), rig.fader.unityX(), 1e-9);
    EXPECT_FALSE(rig.clock.framePending());  // settled: no more frames asked for

    // Outside the detent the knob follows the pointer directly.
    mouse(rig.fader, QEvent::MouseMove, trackXFor(1.3));
    EXPECT_NEAR(rig.fader.knobX(), trackXFor(1.3), 1e-4);
}

TEST(ChannelFaderTest, ValueFromOutsideMovesTheKnobButNotTheDetent) {
    Rig rig;
    rig.fader.setValue(0.2f);
    EXPECT_FALSE(rig.fader.inDetent());
    rig.fader.setValue(1.0f);
    EXPECT_FALSE(rig.fader.inDetent());
    EXPECT_EQ(rig.ticks.size(), 0);
    EXPECT_EQ(rig.edits.size(), 0);
    EXPECT_NEAR(rig.fader.knobX(), rig.fader.unityX(), 1e-9);

    // A stored value out of range is drawn at the nearest end and kept as it is.
    rig.fader.setValue(2.0f);
    EXPECT_EQ(rig.fader.value(), 2.0f);
    EXPECT_NEAR(rig.fader.knobX(), 170.0, 1e-9);
    rig.fader.setValue(-1.0f);
    EXPECT_NEAR(rig.fader.knobX(), 0.0, 1e-9);
}

TEST(ChannelFaderTest, AccessibilityStepsGoThroughTheDetentRule) {
    struct Case {
        const char* what;
        float start;
        bool enterDetentFirst;
        bool increase;
        float value;
        int ticks;
        bool inDetent;
    };
    const std::vector<Case> cases = {
        {"0.9 up lands in the detent", 0.9f, false, true, 1.0f, 1, true},
        {"1.0 up leaves it", 0.9f, true, true, 1.1f, 1, false},
        {"1.1 down comes back", 1.1f, false, false, 1.0f, 1, true},
        {"1.45 up stops at the top", 1.45f, false, true, 1.5f, 0, false},
        {"0.05 down stops at zero", 0.05f, false, false, 0.0f, 0, false},
        {"0.5 down", 0.5f, false, false, 0.4f, 0, false},
    };
    for (const auto& c : cases) {
        Rig rig;
        rig.fader.setValue(c.start);
        auto* actions = QAccessible::queryAccessibleInterface(&rig.fader)->actionInterface();
        ASSERT_NE(actions, nullptr);
        if (c.enterDetentFirst) {
            actions->doAction(QAccessibleActionInterface::increaseAction());
        }
        actions->doAction(c.increase ? QAccessibleActionInterface::increaseAction()
                                     : QAccessibleActionInterface::decreaseAction());
        EXPECT_NEAR(rig.fader.value(), c.value, 1e-6) << c.what;
        EXPECT_EQ(rig.ticks.size(), c.ticks) << c.what;
        EXPECT_EQ(rig.fader.inDetent(), c.inDetent) << c.what;
        // A step animates the knob to its place.
        rig.clock.advance(milliseconds(2000));
        EXPECT_NEAR(rig.fader.knobX(), trackXFor(c.value), 1e-3) << c.what;
    }
}

TEST(ChannelFaderTest, AccessibleValueIsTheTruncatedPercentage) {
    struct Case {
        float value;
        const char* text;
    };
    const std::vector<Case> cases = {{1.5f, "150 percent"},  {1.0f, "100 percent"},
                                     {0.999f, "99 percent"}, {0.0f, "0 percent"},
                                     {0.336f, "33 percent"}, {1.236f, "123 percent"}};
    Rig rig;
    rig.fader.setAccessibleName("Music volume");
    auto* accessible = QAccessible::queryAccessibleInterface(&rig.fader);
    ASSERT_NE(accessible, nullptr);
    EXPECT_EQ(accessible->role(), QAccessible::Slider);
    EXPECT_EQ(accessible->text(QAccessible::Name), QString("Music volume"));
    EXPECT_EQ(accessible->childCount(), 0);
    for (const auto& c : cases) {
        rig.fader.setValue(c.value);
        EXPECT_EQ(accessible->text(QAccessible::Value), QString(c.text)) << c.value;
    }
}

TEST(ChannelFaderTest, DisabledFaderIgnoresThePointerAndFadesButStillSteps) {
    Rig rig;
    rig.fader.setValue(0.5f);
    rig.fader.setEnabled(false);
    mouse(rig.fader, QEvent::MouseButtonPress, trackXFor(1.2));
    mouse(rig.fader, QEvent::MouseMove, trackXFor(1.3));
    EXPECT_EQ(rig.fader.value(), 0.5f);
    EXPECT_EQ(rig.edits.size(), 0);

    rig.fader.increment();
    EXPECT_NEAR(rig.fader.value(), 0.6f, 1e-6);
}

TEST(ChannelFaderTest, LevelComesFromTheSourceStreamOrTheGivenLevel) {
    struct Case {
        const char* what;
        QString sourceID;
        float level;
        float sourceLevel;
        float shown;
    };
    const std::vector<Case> cases = {
        {"no source: the given level", "", 0.4f, 0.9f, 0.4f},
        {"a source: its stream", "app:org.example.Player", 0.7f, 0.6f, 0.6f},
    };
    for (const auto& c : cases) {
        Rig rig;
        rig.fader.setSourceID(c.sourceID);
        rig.fader.setLevel(c.level);
        rig.fader.setSourceLevel(c.sourceLevel);
        EXPECT_EQ(rig.fader.currentLevel(), c.shown) << c.what;
    }

    Rig rig;
    const std::vector<std::pair<float, double>> widths = {
        {0.0f, 0.0}, {0.5f, 170.0 / 3}, {1.0f, 170.0 * 2 / 3}, {1.8f, 170.0 * 2 / 3}, {-0.2f, 0.0}};
    for (const auto& [level, width] : widths) {
        rig.fader.setLevel(level);
        EXPECT_NEAR(rig.fader.levelWidth(), width, 1e-4) << level;
    }
}

}  // namespace
}  // namespace bw
