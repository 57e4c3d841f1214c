#include <gtest/gtest.h>

#include <QAccessible>
#include <QApplication>
#include <QMouseEvent>
#include <QSignalSpy>
#include <QTest>
#include <functional>

#include "interface/ManualConsoleClock.h"
#include "interface/RecordButton.h"
#include "interface/Theme.h"
#include "tests/interface/WidgetImages.h"

namespace bw {
namespace {

using std::chrono::milliseconds;

void mouse(RecordButton& button, QEvent::Type type, QPointF local) {
    const bool release = type == QEvent::MouseButtonRelease;
    QMouseEvent event(type, local, button.mapToGlobal(local),
                      type == QEvent::MouseMove ? Qt::NoButton : Qt::LeftButton,
                      release ? Qt::NoButton : Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(&button, &event);
}

struct Rig {
    ManualConsoleClock clock;
    test::Host host{90};
    RecordButton* button = host.hold(new RecordButton);
    QSignalSpy clicks{button, &RecordButton::clicked};

    Rig() { button->setClock(&clock); }
};

// How each state's glow looks is the record-key picture's to judge.
TEST(RecordButtonTest, StatesGiveCaptionAndSpokenTextsAndADisabledKeyDimsOnlyTheIdleGlow) {
    for (const bool recording : {false, true}) {
        Rig rig;
        rig.button->setRecording(recording);
        const QString spoken = recording ? "Stop recording" : "Start recording";
        EXPECT_EQ(rig.button->text(), recording ? "Stop" : "Record");
        EXPECT_EQ(rig.button->toolTip(), spoken);
        EXPECT_EQ(QAccessible::queryAccessibleInterface(rig.button)->text(QAccessible::Name),
                  spoken);
    }
    // A disabled key dims only the idle glow: a recording's stays whole.
    Rig rig;
    rig.button->setRecording(true);
    rig.button->setKeyEnabled(false);
    EXPECT_DOUBLE_EQ(rig.button->glowOpacity(), 0.6);
    EXPECT_DOUBLE_EQ(rig.button->glowRadius(), 12);
}

TEST(RecordButtonTest, GlowRadiusBreathesWithTheMasterLevelOnlyWhileRecording) {
    struct Case {
        float level;
        double radius;
    };
    const std::vector<Case> cases = {{0.0f, 12}, {0.5f, 19}, {1.0f, 26}, {1.7f, 26}};
    Rig rig;
    rig.button->setLevel(0.8f);  // not recording: ignored
    EXPECT_EQ(rig.button->rawLevel(), 0.0f);
    rig.button->setRecording(true);
    for (const auto& c : cases) {
        rig.button->setLevel(c.level);
        EXPECT_DOUBLE_EQ(rig.button->glowRadius(), c.radius) << c.level;
    }
    rig.button->setLevel(0.25f);
    rig.button->setRecording(false);
    rig.button->setLevel(0.9f);
    EXPECT_EQ(rig.button->rawLevel(), 0.25f);  // the old value stays, without effect
    EXPECT_DOUBLE_EQ(rig.button->glowRadius(), 9);
    rig.button->setRecording(true);
    EXPECT_DOUBLE_EQ(rig.button->glowRadius(), 12 + 14 * 0.25);

    rig.button->setReduceMotion(true);  // the glow breathes with Reduce Motion too
    rig.button->setLevel(1.0f);
    EXPECT_DOUBLE_EQ(rig.button->glowRadius(), 26);
}

TEST(RecordButtonTest, PulseRingExistsWhileRecordingWithoutReducedMotion) {
    // One key through every change of one flag at a time: recording, reduced motion.
    const std::vector<std::pair<bool, bool>> steps = {{true, false},  {true, true},  {true, false},
                                                      {false, false}, {false, true}, {true, true}};
    Rig rig;
    for (const auto& [recording, reduce] : steps) {
        rig.clock.advance(milliseconds(700));
        if (recording != rig.button->isRecording()) {
            rig.button->setRecording(recording);
        } else {
            rig.button->setReduceMotion(reduce);
        }
        const bool ring = recording && !reduce;
        EXPECT_EQ(rig.button->pulseRingVisible(), ring) << recording << reduce;
        EXPECT_EQ(rig.button->isPulsing(), ring) << recording << reduce;
    }
}

TEST(RecordButtonTest, RingLeavesTheEdgeAndFadesOnceEveryPeriod) {
    Rig rig;
    rig.host.surface.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&rig.host.surface));
    rig.button->setRecording(true);
    struct Sample {
        int ms;
        double scale;
        double opacity;
    };
    // Ease-out: most of the swing is done early; each swing restarts at the key's edge.
    const std::vector<Sample> samples = {
        {0, 1.0, 0.7},
        {750, 1.0 + 0.4 * Theme::easeOut(0.5), 0.7 * (1 - Theme::easeOut(0.5))},
        {1500, 1.0, 0.7},
        {1875, 1.0 + 0.4 * Theme::easeOut(0.25), 0.7 * (1 - Theme::easeOut(0.25))},
        {4490, 1.0 + 0.4 * Theme::easeOut(1490.0 / 1500), -1}};
    int now = 0;
    for (const auto& s : samples) {
        rig.clock.advance(milliseconds(s.ms - now));
        now = s.ms;
        EXPECT_NEAR(rig.button->pulseScale(), s.scale, 1e-9) << s.ms;
        if (s.opacity >= 0) {
            EXPECT_NEAR(rig.button->pulseOpacity(), s.opacity, 1e-9) << s.ms;
        }
        EXPECT_GT(rig.clock.pendingDeadlines(), 0u) << "the ring keeps stepping at " << s.ms;
    }
    EXPECT_GT(Theme::easeOut(0.5), 0.5);

    // Hidden, the ring stops stepping; the window's repaint on its return starts it again.
    rig.host.surface.hide();
    rig.clock.advance(milliseconds(100));
    EXPECT_EQ(rig.clock.pendingDeadlines(), 0u);
    rig.host.surface.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&rig.host.surface));
    rig.host.painted();
    rig.clock.advance(milliseconds(100));
    EXPECT_GT(rig.clock.pendingDeadlines(), 0u);
}

TEST(RecordButtonTest, GlyphSpringsBetweenRingAndSquare) {
    Rig rig;
    EXPECT_EQ(rig.button->glyphProgress(), 0.0);
    rig.button->setRecording(true);
    EXPECT_EQ(rig.button->glyphProgress(), 0.0);  // nothing moves before time does
    double highest = 0;
    for (int i = 0; i < 60; ++i) {
        rig.clock.advance(milliseconds(16));
        highest = std::max(highest, rig.button->glyphProgress());
    }
    EXPECT_GT(highest, 1.0);  // damping 0.62 overshoots
    EXPECT_NEAR(rig.button->glyphProgress(), 1.0, 0.01);
    rig.clock.advance(milliseconds(2000));
    EXPECT_EQ(rig.button->glyphProgress(), 1.0);

    rig.button->setReduceMotion(true);
    rig.button->setRecording(false);  // the glyph's spring stays under Reduce Motion
    rig.clock.advance(milliseconds(100));
    EXPECT_GT(rig.button->glyphProgress(), 0.0);
    EXPECT_LT(rig.button->glyphProgress(), 1.0);
    rig.clock.advance(milliseconds(3000));
    EXPECT_EQ(rig.button->glyphProgress(), 0.0);
    EXPECT_FALSE(rig.clock.framePending());
}

TEST(RecordButtonTest, PressScalesTheKeyUntilReleaseEvenWhenDraggedOff) {
    Rig rig;
    const QPointF key = rig.button->keyRect().center();
    mouse(*rig.button, QEvent::MouseButtonPress, key);
    EXPECT_TRUE(rig.button->isPressed());
    rig.clock.advance(milliseconds(1000));
    EXPECT_NEAR(rig.button->pressScale(), RecordButton::pressedScale, 1e-3);

    mouse(*rig.button, QEvent::MouseMove, QPointF(-40, -40));  // off the button
    rig.clock.advance(milliseconds(500));
    EXPECT_TRUE(rig.button->isPressed());
    EXPECT_NEAR(rig.button->pressScale(), RecordButton::pressedScale, 1e-3);

    mouse(*rig.button, QEvent::MouseButtonRelease, QPointF(-40, -40));
    EXPECT_FALSE(rig.button->isPressed());
    EXPECT_EQ(rig.clicks.size(), 0);  // released off the key: no action
    rig.clock.advance(milliseconds(1000));
    EXPECT_EQ(rig.button->pressScale(), 1.0);
}

TEST(RecordButtonTest, APressReachesTheActionWhateverTheGlow) {
    struct Case {
        bool recording;
        bool enabled;
    };
    for (const auto& c : std::vector<Case>{{false, true}, {false, false}, {true, false}}) {
        Rig rig;
        rig.button->setRecording(c.recording);
        rig.button->setKeyEnabled(c.enabled);
        const QPointF key = rig.button->keyRect().center();
        mouse(*rig.button, QEvent::MouseButtonPress, key);
        mouse(*rig.button, QEvent::MouseButtonRelease, key);
        EXPECT_EQ(rig.clicks.size(), 1) << c.recording << c.enabled;
        // The caption belongs to the button; the glow around it doesn't.
        const QPointF caption(key.x(), rig.button->keyRect().bottom() + 10);
        mouse(*rig.button, QEvent::MouseButtonPress, caption);
        mouse(*rig.button, QEvent::MouseButtonRelease, caption);
        EXPECT_EQ(rig.clicks.size(), 2);
        const QPointF glow(rig.button->keyRect().left() - 10, key.y());
        mouse(*rig.button, QEvent::MouseButtonPress, glow);
        mouse(*rig.button, QEvent::MouseButtonRelease, glow);
        EXPECT_EQ(rig.clicks.size(), 2);
        EXPECT_FALSE(rig.button->isPressed());
    }
}

TEST(RecordButtonTest, TheGlowFollowsTheKeyWhereverItGoes) {
    // Whether red light falls 6 points left of the key, and the lit margin sits centred on it.
    const auto followed = [](test::Host& host, RecordButton& button) {
        const QRectF key = button.keyRect();
        const QPointF point = QPointF(button.pos()) + QPointF(key.left() - 6, key.center().y() + 2);
        const bool lit = host.painted().pixelColor(point.toPoint()).alpha() > 0;
        for (const QWidget* sibling : host.surface.findChildren<QWidget*>()) {
            if (sibling != &button && sibling->geometry().center() != button.geometry().center()) {
                return false;
            }
        }
        return lit;
    };
    Rig rig;
    EXPECT_TRUE(followed(rig.host, *rig.button));
    struct Step {
        const char* what;
        std::function<void(RecordButton&)> act;
        bool lit;
    };
    const std::vector<Step> steps = {
        {"moved", [](RecordButton& b) { b.move(b.pos() + QPoint(10, 5)); }, true},
        {"resized", [](RecordButton& b) { b.resize(b.size() + QSize(20, 0)); }, true},
        {"hidden", [](RecordButton& b) { b.hide(); }, false},
        {"shown", [](RecordButton& b) { b.show(); }, true},
    };
    for (const auto& step : steps) {
        step.act(*rig.button);
        EXPECT_EQ(followed(rig.host, *rig.button), step.lit) << step.what;
    }

    // Another parent: the light goes with the key, and goes when the key does.
    test::Host other{90};
    other.hold(rig.button);
    EXPECT_TRUE(followed(other, *rig.button));
    EXPECT_TRUE(rig.host.surface.findChildren<QWidget*>().isEmpty());
    delete rig.button;
    EXPECT_TRUE(other.surface.findChildren<QWidget*>().isEmpty());
}

}  // namespace
}  // namespace bw
