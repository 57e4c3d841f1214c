#include <gtest/gtest.h>

#include <QAbstractButton>
#include <QAccessible>
#include <QApplication>
#include <QEnterEvent>
#include <QLabel>
#include <QSignalSpy>
#include <QTest>

#include "interface/ArmIndicator.h"
#include "interface/ChannelFader.h"
#include "interface/SourceRowView.h"
#include "interface/Theme.h"
#include "tests/app/QtTestSupport.h"
#include "tests/interface/ViewRig.h"

namespace bw {
namespace {

using test::pumpUntil;

std::unique_ptr<SourceRowView> makeRow(test::ViewRig& rig, const RecordingSource& source) {
    auto row = std::make_unique<SourceRowView>(*rig.state, rig.icons, rig.tracker, source);
    row->setClock(&rig.consoleClock);
    row->resize(520, 40);
    return row;
}

/// Lets every motion of the rows on `rig`'s clock come to rest.
void settle(test::ViewRig& rig) {
    rig.consoleClock.advance(std::chrono::seconds(2));
}

void hover(QWidget& widget, bool inside) {
    if (inside) {
        QEnterEvent enter(QPointF(5, 5), QPointF(5, 5), QPointF(5, 5));
        QApplication::sendEvent(&widget, &enter);
    } else {
        QEvent leave(QEvent::Leave);
        QApplication::sendEvent(&widget, &leave);
    }
}

// The percentage rounds to the nearest whole (1.236 up, 0.004 down). Each kind's icon, playing
// badge, unlit lamp and own level are the window pictures' to judge.
TEST(SourceRowViewTest, EachKindShowsItsNameAndStoredVolume) {
    struct Case {
        const char* what;
        std::function<RecordingSource(test::ViewRig&)> source;
        float storedVolume;  // negative: none stored
        QString name;
        QString percentage;
    };
    const std::vector<Case> cases = {
        {"system audio", [](auto& r) { return r.state->systemSource(); }, -1, "System Audio",
         "100%"},
        {"playing app", [](auto& r) { return r.app(0); }, 0.5f, "Player", "50%"},
        {"silent app", [](auto& r) { return r.app(1); }, 1.236f, "Notes", "124%"},
        {"microphone", [](auto& r) { return r.state->micSources()[0]; }, 0.004f, "USB Mic", "0%"},
    };
    for (const auto& c : cases) {
        test::ViewRig rig;
        rig.listSome();
        const RecordingSource source = c.source(rig);
        if (c.storedVolume >= 0) {
            rig.state->setVolume(source, c.storedVolume);
        }
        auto row = makeRow(rig, source);
        EXPECT_EQ(row->nameLabel()->text(), c.name) << c.what;
        EXPECT_EQ(row->tickArea()->accessibleName(), "Record " + c.name) << c.what;
        EXPECT_EQ(row->fader()->accessibleName(), c.name + " volume") << c.what;
        EXPECT_FLOAT_EQ(row->displayedVolume(), rig.state->volume(source.id)) << c.what;
        EXPECT_FLOAT_EQ(row->fader()->value(), rig.state->volume(source.id)) << c.what;
        EXPECT_EQ(row->percentageLabel()->text(), c.percentage) << c.what;
        EXPECT_EQ(row->fader()->sourceID().toStdString(), source.id) << c.what;
    }
}

TEST(SourceRowViewTest, IconKeyIsIdAndNameForApplicationsOnly) {
    test::ViewRig rig;
    rig.listSome();
    EXPECT_EQ(makeRow(rig, rig.app(0))->iconKey(), "app:org.example.Player|Player");
    EXPECT_EQ(makeRow(rig, rig.state->systemSource())->iconKey(), "");
    EXPECT_EQ(makeRow(rig, rig.state->micSources()[0])->iconKey(), "");

    // A rename changes the key, and the icon follows the new load.
    auto row = makeRow(rig, rig.app(1));
    ASSERT_TRUE(pumpUntil([&] { return !rig.icons.isLoading(row->iconKey()); }));
    EXPECT_FALSE(row->appIcon().has_value());
    RecordingSource renamed = rig.app(1);
    renamed.name = "Notes 2";
    row->setSource(renamed);
    EXPECT_EQ(row->iconKey(), "app:org.example.Notes|Notes 2");
    EXPECT_EQ(row->nameLabel()->text(), "Notes 2");
    EXPECT_EQ(row->iconSymbol(), "app.dashed");
}

// The ticked row's fill is the window pictures' to judge.
TEST(SourceRowViewTest, ClickingTheTickAreaTogglesTheSourceAndShowsTheFader) {
    test::ViewRig rig;
    rig.listSome();
    auto row = makeRow(rig, rig.app(0));
    row->show();
    QSignalSpy selection(rig.state.get(), &AppState::selectedSourceIDsChanged);

    // The click lands on the free space right of the name: the whole area is the box.
    QAbstractButton* tick = row->tickArea();
    QTest::mouseClick(tick, Qt::LeftButton, {}, QPoint(tick->width() - 4, tick->height() / 2));
    settle(rig);
    EXPECT_EQ(selection.count(), 1);
    EXPECT_TRUE(rig.state->selectedSourceIDs().contains("app:org.example.Player"));
    EXPECT_TRUE(row->isSelected());
    EXPECT_TRUE(row->lamp()->isArmed());
    EXPECT_TRUE(tick->isChecked());
    EXPECT_TRUE(row->volumeArea()->isVisible());
    EXPECT_EQ(row->nameLabel()->palette().color(QPalette::WindowText),
              Theme::primary(row->palette()));

    QTest::mouseClick(tick, Qt::LeftButton, {}, QPoint(4, tick->height() / 2));
    settle(rig);
    EXPECT_EQ(selection.count(), 2);
    EXPECT_TRUE(rig.state->selectedSourceIDs().empty());
    EXPECT_FALSE(row->lamp()->isArmed());
    EXPECT_FALSE(row->volumeArea()->isVisible());
    EXPECT_EQ(row->nameLabel()->palette().color(QPalette::WindowText),
              Theme::secondary(row->palette()));

    // A tick from elsewhere (System Audio unticks applications) reaches the row too.
    rig.tick({"app:org.example.Player"});
    EXPECT_TRUE(row->lamp()->isArmed());
    rig.tick({"system"});
    EXPECT_FALSE(row->lamp()->isArmed());
}

/// Every object a screen reader can reach under `node`.
void collectAccessible(QAccessibleInterface* node, QList<QObject*>& found) {
    for (int i = 0; node && i < node->childCount(); ++i) {
        QAccessibleInterface* child = node->child(i);
        found.append(child->object());
        collectAccessible(child, found);
    }
}

TEST(SourceRowViewTest, AScreenReaderTicksTheRowAndHearsTheFaderButNotItsEchoes) {
    test::ViewRig rig;
    rig.listSome();
    auto row = makeRow(rig, rig.app(0));
    row->show();
    QAccessibleInterface* tick = QAccessible::queryAccessibleInterface(row->tickArea());
    ASSERT_NE(tick->actionInterface(), nullptr);
    // Orca's "Toggle" toggles the box without a click.
    tick->actionInterface()->doAction(QAccessibleActionInterface::toggleAction());
    EXPECT_TRUE(rig.state->selectedSourceIDs().contains("app:org.example.Player"));
    EXPECT_TRUE(row->volumeArea()->isVisible());
    EXPECT_TRUE(tick->state().checked);

    QList<QObject*> reachable;
    collectAccessible(QAccessible::queryAccessibleInterface(row.get()), reachable);
    EXPECT_TRUE(reachable.contains(row->tickArea()));
    EXPECT_TRUE(reachable.contains(row->fader()));
    EXPECT_FALSE(reachable.contains(row->percentageLabel())) << "the fader speaks it";
    EXPECT_FALSE(reachable.contains(row->placeholder()));

    QAccessibleValueInterface* value =
        QAccessible::queryAccessibleInterface(row->fader())->valueInterface();
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(value->currentValue().toInt(), 100);
    EXPECT_EQ(value->minimumValue().toInt(), 0);
    EXPECT_EQ(value->maximumValue().toInt(), 150);
    value->setCurrentValue(50);
    EXPECT_FLOAT_EQ(rig.state->volume("app:org.example.Player"), 0.5f);
    EXPECT_EQ(row->percentageLabel()->text(), "50%");

    tick->actionInterface()->doAction(QAccessibleActionInterface::toggleAction());
    EXPECT_TRUE(rig.state->selectedSourceIDs().empty());
    EXPECT_FALSE(tick->state().checked);
}

TEST(SourceRowViewTest, TickAndHoverMoveAsTheConsolePromisesUnlessTheDesktopAsksForLess) {
    using namespace std::chrono_literals;
    // Ticked while hovering: the tick's spring (response 0.3, damping 0.7) carries the area's
    // opacity from 0 and its scale from 0.9, the hover eases in over 0.12 s; read at the start,
    // the middle and the end. With less motion everything is there at once.
    struct Reading {
        double opacity, scale, hover;
        bool live;  // the real fader shows, not its picture
    };
    for (const bool reduce : {false, true}) {
        test::ViewRig rig;
        rig.listSome();
        auto row = makeRow(rig, rig.app(0));
        row->setReduceMotion(reduce);
        row->show();
        hover(*row, true);
        row->tickArea()->click();
        std::vector<Reading> readings;
        for (const auto step : {0ms, 60ms, 1500ms}) {
            rig.consoleClock.advance(step);
            readings.push_back({row->volumeAreaOpacity(), row->volumeAreaScale(),
                                row->hoverProgress(), row->fader()->isVisible()});
            EXPECT_TRUE(row->volumeArea()->isVisible());
            // The placeholder gives way as the area comes.
            EXPECT_NEAR(row->placeholderOpacity(),
                        row->hoverProgress() * (1.0 - row->volumeAreaOpacity()), 1e-9);
        }
        const Reading& start = readings[0];
        const Reading& middle = readings[1];
        const Reading& end = readings[2];
        EXPECT_NEAR(start.opacity, reduce ? 1.0 : 0.0, 1e-9) << reduce;
        EXPECT_NEAR(start.scale, reduce ? 1.0 : 0.9, 1e-9) << reduce;
        EXPECT_NEAR(start.hover, reduce ? 1.0 : 0.0, 1e-9) << reduce;
        EXPECT_EQ(start.live, reduce) << reduce;
        if (!reduce) {
            EXPECT_GT(middle.opacity, 0.1);
            EXPECT_LT(middle.opacity, 1.0);
            EXPECT_GT(middle.scale, 0.91);
            EXPECT_GT(middle.hover, 0.6);
            EXPECT_LT(middle.hover, 1.0);
            EXPECT_FALSE(middle.live);
        }
        EXPECT_NEAR(end.opacity, 1.0, 1e-9) << reduce;
        EXPECT_NEAR(end.scale, 1.0, 1e-9) << reduce;
        EXPECT_NEAR(end.hover, 1.0, 1e-9) << reduce;
        EXPECT_TRUE(end.live) << reduce;
    }

    // Unticking runs the spring back: the area leaves only once it has faded out.
    test::ViewRig rig;
    rig.listSome();
    rig.tick({"app:org.example.Player"});
    auto row = makeRow(rig, rig.app(0));
    row->show();
    row->tickArea()->click();
    rig.consoleClock.advance(60ms);
    EXPECT_TRUE(row->volumeArea()->isVisible());
    EXPECT_LT(row->volumeAreaOpacity(), 1.0);
    settle(rig);
    EXPECT_FALSE(row->volumeArea()->isVisible());
    EXPECT_EQ(row->fillColor().alpha(), 0);
}

TEST(SourceRowViewTest, HoverFillsAnUntickedRowAndARecordingFreezesTicksButNotFaders) {
    test::ViewRig rig;
    rig.listSome();
    auto unticked = makeRow(rig, rig.app(1));
    auto ticked = makeRow(rig, rig.app(0));
    rig.tick({"app:org.example.Player"});
    unticked->show();
    ticked->show();
    const QColor hoverFill = Theme::withOpacity(Theme::primary(unticked->palette()), 0.04);

    EXPECT_EQ(unticked->fillColor().alpha(), 0);
    EXPECT_FALSE(unticked->placeholder()->isVisible());
    hover(*unticked, true);
    settle(rig);
    EXPECT_TRUE(unticked->isHovering());
    EXPECT_EQ(unticked->fillColor(), hoverFill);
    EXPECT_TRUE(unticked->placeholder()->isVisible());
    EXPECT_FALSE(unticked->volumeArea()->isVisible());
    hover(*unticked, false);
    settle(rig);
    EXPECT_EQ(unticked->fillColor().alpha(), 0);
    EXPECT_FALSE(unticked->placeholder()->isVisible());

    // The ticked row's fill outranks hovering, and it shows no placeholder.
    hover(*ticked, true);
    settle(rig);
    EXPECT_EQ(ticked->fillColor(), Theme::withOpacity(Theme::accent(), 0.08));
    EXPECT_FALSE(ticked->placeholder()->isVisible());
    EXPECT_TRUE(ticked->volumeArea()->isVisible());

    // During a recording: no hover, the ticks are frozen and the fader stays live.
    rig.state->toggleRecording();
    ASSERT_TRUE(pumpUntil([&] { return rig.state->isRecording(); }));
    hover(*unticked, true);
    settle(rig);
    EXPECT_EQ(unticked->fillColor().alpha(), 0);
    EXPECT_FALSE(unticked->placeholder()->isVisible());
    EXPECT_TRUE(ticked->lamp()->isRecording());
    for (SourceRowView* row : {ticked.get(), unticked.get()}) {
        const bool selected = row->isSelected();
        EXPECT_FALSE(row->tickArea()->isEnabled());
        QTest::mouseClick(row->tickArea(), Qt::LeftButton);
        EXPECT_EQ(row->isSelected(), selected);
    }
    EXPECT_TRUE(ticked->fader()->isEnabled());
    ticked->fader()->increment();
    ASSERT_FALSE(rig.engines.last().volumeChanges.empty());
    EXPECT_EQ(rig.engines.last().volumeChanges.back().first, "app:org.example.Player");
    EXPECT_FLOAT_EQ(rig.engines.last().volumeChanges.back().second, 1.1f);

    rig.state->toggleRecording();
    ASSERT_TRUE(pumpUntil([&] { return !rig.state->isBusy(); }));
    EXPECT_TRUE(ticked->tickArea()->isEnabled());
}

}  // namespace
}  // namespace bw
