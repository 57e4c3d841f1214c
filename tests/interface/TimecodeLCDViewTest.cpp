#include <gtest/gtest.h>

#include <QAccessible>
#include <QFontMetricsF>
#include <QTest>
#include <cmath>

#include "interface/ManualConsoleClock.h"
#include "interface/Theme.h"
#include "interface/TimecodeLCDView.h"

namespace bw {
namespace {

using std::chrono::milliseconds;

// How the digits and their glow look, dim and lit, the console's pictures show; here: the glow
// follows the recording, the widget is exactly its line of digits, and the compact form is spoken.
TEST(TimecodeLCDViewTest, TheGlowFollowsTheRecordingAndTheCompactFormIsSpoken) {
    ManualConsoleClock clock;
    TimecodeLCDView lcd;
    lcd.setClock(&clock);
    EXPECT_EQ(lcd.formattedElapsed(), QString("0:00:00"));
    EXPECT_EQ(lcd.compactElapsed(), QString("00:00"));
    for (const bool recording : {false, true, false}) {
        lcd.setRecording(recording);
        EXPECT_EQ(lcd.isGlowing(), recording);
    }
    const QFontMetricsF metrics(Theme::timecodeFont());
    const int sevenCharacters = lcd.sizeHint().width();
    EXPECT_EQ(sevenCharacters, static_cast<int>(std::ceil(metrics.horizontalAdvance("0:00:00"))));
    auto* accessible = QAccessible::queryAccessibleInterface(&lcd);
    ASSERT_NE(accessible, nullptr);
    EXPECT_EQ(accessible->text(QAccessible::Name), QString("Elapsed time"));
    lcd.setFormattedElapsed("0:12:34");
    lcd.setCompactElapsed("12:34");
    EXPECT_EQ(lcd.formattedElapsed(), "0:12:34");
    EXPECT_EQ(accessible->text(QAccessible::Value), "12:34");
    lcd.setFormattedElapsed("100:00:00");
    EXPECT_GT(lcd.sizeHint().width(), sevenCharacters);  // more hours, wider display
}

TEST(TimecodeLCDViewTest, ChangedDigitsRollUpIntoPlace) {
    ManualConsoleClock clock;
    TimecodeLCDView lcd;
    lcd.setClock(&clock);
    lcd.resize(lcd.sizeHint());
    // Hidden, a new text stands in place at once: nobody would see the roll.
    lcd.setFormattedElapsed("0:00:09");
    EXPECT_EQ(lcd.rollProgress(), 1.0);
    EXPECT_FALSE(clock.framePending());
    lcd.setFormattedElapsed("0:00:00");
    lcd.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&lcd));

    // How a roll looks halfway is the console pictures' to judge (console-widgets.png).
    lcd.setFormattedElapsed("0:00:01");  // a new text rolls, the same one again doesn't restart
    EXPECT_EQ(lcd.rollProgress(), 0.0);
    clock.advance(milliseconds(60));
    lcd.setFormattedElapsed("0:00:01");
    EXPECT_GT(lcd.rollProgress(), 0.0);
    clock.advance(milliseconds(90));
    EXPECT_NEAR(lcd.rollProgress(), 0.5, 0.06);
    clock.advance(milliseconds(300));
    EXPECT_EQ(lcd.rollProgress(), 1.0);
    EXPECT_FALSE(clock.framePending());
}

}  // namespace
}  // namespace bw
