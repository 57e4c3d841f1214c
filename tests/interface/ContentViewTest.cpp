#include <gtest/gtest.h>

#include <QAbstractButton>
#include <QDir>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>
#include <QToolButton>

#include <QTranslator>

#include "app/Translations.h"
#include "interface/ChannelFader.h"
#include "interface/ConsoleSurface.h"
#include "interface/ContentView.h"
#include "interface/GrainOverlay.h"
#include "interface/RecordButton.h"
#include "interface/SourceRowView.h"
#include "interface/Theme.h"
#include "interface/TimecodeLCDView.h"
#include "platform/base/Localization.h"
#include "tests/app/QtTestSupport.h"
#include "tests/interface/ViewRig.h"
#include "tests/interface/WidgetImages.h"

namespace bw {
namespace {

using namespace std::chrono_literals;
using test::pumpUntil;

struct ViewUnderTest {
    test::ViewRig rig;
    std::unique_ptr<ContentView> view;

    explicit ViewUnderTest(bool listSome = true) {
        if (listSome) {
            rig.listSome();
        }
        view = std::make_unique<ContentView>(*rig.state, rig.icons, rig.tracker, rig.timer,
                                             &rig.consoleClock);
        view->resize(640, 560);
    }

    std::vector<std::string> names(const std::vector<SourceRowView*>& rows) const {
        std::vector<std::string> result;
        for (const SourceRowView* row : rows) {
            result.push_back(row->nameLabel()->text().toStdString());
        }
        return result;
    }

    std::vector<std::string> filteredNames() const {
        std::vector<std::string> result;
        for (const auto& source : view->filteredApps()) {
            result.push_back(source.name);
        }
        return result;
    }

    void recordTicked(std::initializer_list<std::string> ids) {
        rig.tick(ids);
        view->recordButton()->click();
        ASSERT_TRUE(pumpUntil([&] { return rig.state->isRecording(); }));
    }
};

// The three sections with their rows in order are the window pictures' to judge.
TEST(ContentViewTest, ARefreshDropsOnlyTheRowsOfGoneSources) {
    ViewUnderTest t;
    EXPECT_EQ(t.names(t.view->appRows()), (std::vector<std::string>{"Player", "Notes"}));
    EXPECT_FALSE(t.view->noInputsLabel()->isVisibleTo(t.view.get()));
    EXPECT_GE(t.view->minimumWidth(), 560);
    EXPECT_GE(t.view->minimumHeight(), 480);
    SourceRowView* player = t.view->appRows()[0];
    t.rig.refreshWith({test::process(1, "org.example.Player", "Player", true)});
    EXPECT_EQ(t.names(t.view->appRows()), (std::vector<std::string>{"Player"}));
    EXPECT_EQ(t.view->appRows()[0], player);
    EXPECT_TRUE(t.view->micRows().empty());
    EXPECT_TRUE(t.view->noInputsLabel()->isVisibleTo(t.view.get()));
    EXPECT_EQ(t.view->noInputsLabel()->text(), "No input devices found");
}

// The plural, the recording line and the capitals are the window pictures' to judge.
TEST(ContentViewTest, StatusLineFollowsTheFlags) {
    struct Case {
        const char* what;
        std::function<void(test::ViewRig&)> arrange;
        QString text;
        QColor color;  // invalid: the header's secondary colour
        bool bold;
    };
    const std::vector<Case> cases = {
        {"nothing ticked", [](auto&) {}, "Select sources below", QColor(), false},
        {"one ticked", [](auto& r) { r.tick({"app:org.example.Player"}); },
         "Ready · 1 source armed", QColor(), false},
        {"hint", [](auto& r) { r.state->flashSelectionHint(); }, "First, tick a source below",
         Theme::orange(), true},
        {"hint with a tick: the count wins",
         [](auto& r) {
             r.state->flashSelectionHint();
             r.tick({"system"});
         },
         "Ready · 1 source armed", QColor(), false},
        {"starting",
         [](auto& r) {
             r.heldPermission = SharedResult<bool>();
             r.tick({"mic:usb"});
             r.state->toggleRecording();
             ASSERT_TRUE(pumpUntil([&] { return r.state->isStartingRecording(); }));
         },
         "Starting…", Theme::consoleAmber(), false},
        {"saving",
         [](auto& r) {
             r.engines.script = [](test::FakeRecordingEngine& e) { e.holdStop = true; };
             r.tick({"system"});
             r.state->toggleRecording();
             ASSERT_TRUE(pumpUntil([&] { return r.state->isRecording(); }));
             r.state->toggleRecording();
             ASSERT_TRUE(pumpUntil([&] { return r.state->isStoppingRecording(); }));
         },
         "Saving…", Theme::consoleAmber(), false},
    };
    for (const auto& c : cases) {
        ViewUnderTest t;
        c.arrange(t.rig);
        t.rig.consoleClock.advance(2s);  // the hint's colour has come in
        QLabel* status = t.view->statusLabel();
        const QColor expected =
            c.color.isValid() ? c.color : Theme::secondary(t.view->header()->palette());
        EXPECT_EQ(status->text(), c.text) << c.what;
        EXPECT_EQ(status->palette().color(QPalette::WindowText), expected) << c.what;
        EXPECT_EQ(status->font().bold(), c.bold) << c.what;
        // Let whatever was held end before the rig goes.
        if (t.rig.heldPermission) {
            t.rig.heldPermission->set(false);
        }
        if (t.rig.state->isStoppingRecording()) {
            t.rig.engines.last().finishStop();
        } else if (t.rig.state->isRecording()) {
            t.rig.state->toggleRecording();
        }
        EXPECT_TRUE(pumpUntil([&] { return !t.rig.state->isBusy(); })) << c.what;
    }
}

TEST(ContentViewTest, TheHintsColourComesInWithTheDefaultMotionUnlessTheDesktopAsksForLess) {
    for (const bool reduce : {false, true}) {
        ViewUnderTest t;
        t.view->setReduceMotion(reduce);
        const QColor rest = Theme::secondary(t.view->header()->palette());
        const auto shown = [&] {
            return t.view->statusLabel()->palette().color(QPalette::WindowText);
        };
        t.rig.state->flashSelectionHint();
        EXPECT_EQ(shown(), reduce ? Theme::orange() : rest) << reduce;
        t.rig.consoleClock.advance(150ms);
        if (!reduce) {
            EXPECT_GT(t.view->selectionHintProgress(), 0.1);
            EXPECT_LT(t.view->selectionHintProgress(), 0.9);
            EXPECT_NE(shown(), rest);
            EXPECT_NE(shown(), Theme::orange());
        }
        t.rig.consoleClock.advance(3s);
        EXPECT_EQ(shown(), Theme::orange()) << reduce;
    }
}

TEST(ContentViewTest, TheRecordKeyWithNothingTickedOnlyHints) {
    ViewUnderTest t;
    EXPECT_FALSE(t.view->recordButton()->isKeyEnabled());
    t.view->recordButton()->click();
    EXPECT_TRUE(t.rig.state->showSelectionHint());
    EXPECT_TRUE(t.rig.engines.made.empty());
    EXPECT_FALSE(t.rig.state->isBusy());
    t.rig.tick({"app:org.example.Player"});
    EXPECT_TRUE(t.view->recordButton()->isKeyEnabled());
}

TEST(ContentViewTest, ControlsFreezeWhileBusy) {
    struct Case {
        const char* what;
        bool holdPermission;
        bool keyEnabled;
    };
    for (const Case& c : {Case{"starting", true, false}, Case{"recording", false, true}}) {
        ViewUnderTest t;
        t.view->show();
        if (c.holdPermission) {
            t.rig.heldPermission = SharedResult<bool>();
            t.rig.tick({"mic:usb"});
        } else {
            t.rig.tick({"app:org.example.Player"});
        }
        t.view->recordButton()->click();
        ASSERT_TRUE(pumpUntil([&] {
            return c.holdPermission ? t.rig.state->isStartingRecording()
                                    : t.rig.state->isRecording();
        })) << c.what;
        EXPECT_EQ(t.view->recordButton()->isKeyEnabled(), c.keyEnabled) << c.what;
        EXPECT_FALSE(t.view->monitorSwitch()->isEnabled()) << c.what;
        for (SourceRowView* row : t.view->appRows()) {
            EXPECT_FALSE(row->tickArea()->isEnabled()) << c.what;
        }
        EXPECT_FALSE(t.view->systemRow()->tickArea()->isEnabled()) << c.what;
        if (c.holdPermission) {
            // A press while starting reaches the state, which ignores it.
            t.view->recordButton()->click();
            EXPECT_TRUE(t.rig.state->isStartingRecording()) << c.what;
            EXPECT_FALSE(t.rig.state->showSelectionHint()) << c.what;
            t.rig.heldPermission->set(true);
        }
        ASSERT_TRUE(pumpUntil([&] { return t.rig.state->isRecording(); })) << c.what;
        EXPECT_TRUE(t.view->recordButton()->isRecording() && t.view->timecode()->isRecording());
        t.view->recordButton()->click();
        ASSERT_TRUE(pumpUntil([&] { return !t.rig.state->isBusy(); })) << c.what;
        EXPECT_EQ(t.rig.engines.made.size(), 1u) << c.what;
        EXPECT_FALSE(t.view->recordButton()->isRecording()) << c.what;
        EXPECT_TRUE(t.view->monitorSwitch()->isEnabled()) << c.what;
        EXPECT_TRUE(t.view->systemRow()->tickArea()->isEnabled()) << c.what;
    }
}

TEST(ContentViewTest, MonitorSwitchIsBoundToPassthrough) {
    ViewUnderTest t;
    t.view->show();
    QAbstractButton* monitor = t.view->monitorSwitch();
    EXPECT_TRUE(monitor->toolTip().startsWith("Play the mix being recorded"));
    QSignalSpy changed(t.rig.state.get(), &AppState::passthroughEnabledChanged);

    QTest::mouseClick(monitor, Qt::LeftButton);
    EXPECT_TRUE(t.rig.state->passthroughEnabled());
    EXPECT_EQ(changed.count(), 1);
    QTest::mouseClick(monitor, Qt::LeftButton);
    EXPECT_FALSE(t.rig.state->passthroughEnabled());
    EXPECT_EQ(changed.count(), 2);

    // The other way: the state moves the switch without writing back.
    t.rig.state->setPassthroughEnabled(true);
    EXPECT_TRUE(monitor->isChecked());
    EXPECT_EQ(changed.count(), 3);
}

QStringList lineNames(const ContentView& view) {
    QStringList names;
    for (QWidget* line : view.messageLines()) {
        names << line->objectName() + ":" + line->findChild<QLabel*>("messageText")->text();
    }
    return names;
}

void dismiss(QWidget* line) {
    line->findChild<QToolButton*>("dismissButton")->click();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

TEST(ContentViewTest, MessageLinesStandInOrderAndDismiss) {
    ViewUnderTest t;
    t.view->show();
    EXPECT_TRUE(t.view->messageLines().empty());

    // A stop with silent sources leaves a saved line and warnings; two sources share one text.
    t.rig.engines.script = [&](test::FakeRecordingEngine& engine) {
        engine.failures = {{"a", "Shared trouble"}, {"b", "Shared trouble"}};
        engine.silentSources = {t.rig.app(0)};
    };
    t.recordTicked({"app:org.example.Player"});
    t.view->recordButton()->click();
    ASSERT_TRUE(pumpUntil([&] { return !t.rig.state->isBusy(); }));
    // An error from opening the folder stands above them.
    t.rig.viewer->opens = false;
    t.view->recordingsFolderButton()->click();
    ASSERT_TRUE(pumpUntil([&] { return t.rig.state->errorMessage().has_value(); }));

    const QString saved = *t.rig.state->savedMessage();
    const QString error = *t.rig.state->errorMessage();
    const QString silent = "No audio was received from Player during this recording.";
    EXPECT_EQ(lineNames(*t.view), (QStringList{"errorLine:" + error, "warningLine:Shared trouble",
                                               "warningLine:Shared trouble",
                                               "warningLine:" + silent, "savedLine:" + saved}));
    for (QWidget* line : t.view->messageLines()) {
        EXPECT_EQ(line->findChild<QToolButton*>("dismissButton")->accessibleName(), "Dismiss");
    }

    dismiss(t.view->messageLines()[1]);  // every equal warning goes
    EXPECT_EQ(lineNames(*t.view),
              (QStringList{"errorLine:" + error, "warningLine:" + silent, "savedLine:" + saved}));
    dismiss(t.view->messageLines()[0]);
    EXPECT_FALSE(t.rig.state->errorMessage().has_value());
    QWidget* savedLine = t.view->messageLines().back();
    savedLine->findChild<QPushButton*>("revealButton")->click();
    EXPECT_EQ(t.rig.viewer->selected.size(), 1u);
    dismiss(t.view->messageLines().back());
    EXPECT_FALSE(t.rig.state->savedMessage().has_value());
    EXPECT_EQ(lineNames(*t.view), (QStringList{"warningLine:" + silent}));
    dismiss(t.view->messageLines()[0]);
    EXPECT_TRUE(t.view->messageLines().empty());
    EXPECT_TRUE(t.rig.state->sourceWarnings().isEmpty());
}

TEST(ContentViewTest, SavedLineHidesDuringARecordingAndTheFooterNamesTheFile) {
    ViewUnderTest t;
    t.view->show();
    EXPECT_FALSE(t.view->lastRecordingButton()->isVisible());
    t.recordTicked({"app:org.example.Player"});
    t.view->recordButton()->click();
    ASSERT_TRUE(pumpUntil([&] { return !t.rig.state->isBusy(); }));
    ASSERT_TRUE(t.rig.state->lastRecordingURL().has_value());
    EXPECT_TRUE(t.view->lastRecordingButton()->isVisible());
    EXPECT_EQ(t.view->lastRecordingButton()->text(), t.rig.state->lastRecordingURL()->fileName());
    t.view->lastRecordingButton()->click();
    EXPECT_EQ(t.rig.viewer->selected.size(), 1u);

    // The next start clears the saved line; the saved line of a finished one shows again.
    t.view->recordButton()->click();
    ASSERT_TRUE(pumpUntil([&] { return t.rig.state->isRecording(); }));
    EXPECT_TRUE(lineNames(*t.view).filter("savedLine").isEmpty());
}

TEST(ContentViewTest, SearchTakesEffectOnlyAfterAQuarterSecondPause) {
    struct Case {
        const char* what;
        std::vector<QString> typed;  // each after the last, 100 ms apart
        std::vector<std::string> before;
        std::vector<std::string> after;
    };
    const std::vector<std::string> all = {"Player", "Notes", "Notepad"};
    const std::vector<Case> cases = {
        {"one word, any case", {"NOT"}, all, {"Notes", "Notepad"}},
        {"only the last pause counts", {"p", "pl"}, all, {"Player"}},
        {"blanks list everything", {"   "}, all, all},
        {"trimmed", {"  pad\n"}, all, {"Notepad"}},
        {"no match", {"zzz"}, all, {}},
        {"typed and cleared", {"pla", ""}, all, all},
    };
    for (const auto& c : cases) {
        ViewUnderTest t;
        t.rig.refreshWith({test::process(1, "org.example.Player", "Player"),
                           test::process(2, "org.example.Notes", "Notes"),
                           test::process(3, "org.example.Notepad", "Notepad")});
        for (const QString& text : c.typed) {
            t.view->searchField()->setText(text);
            t.rig.consoleClock.advance(100ms);
        }
        t.rig.consoleClock.advance(149ms);
        EXPECT_EQ(t.filteredNames(), c.before) << c.what;
        EXPECT_EQ(t.view->appFilter(), c.typed.back()) << c.what;
        t.rig.consoleClock.advance(1ms);
        EXPECT_EQ(t.filteredNames(), c.after) << c.what;
        EXPECT_EQ(t.names(t.view->appRows()), c.after) << c.what;
        EXPECT_EQ(t.view->debouncedFilter(), c.typed.back()) << c.what;
    }
}

TEST(ContentViewTest, ARefreshShowsThroughAnActiveSearchAndHiddenTicksStay) {
    ViewUnderTest t;
    t.rig.tick({"app:org.example.Notes"});
    t.view->setAppFilter("play");
    t.rig.consoleClock.advance(250ms);
    EXPECT_EQ(t.names(t.view->appRows()), (std::vector<std::string>{"Player"}));
    EXPECT_EQ(t.view->statusLabel()->text(), "Ready · 1 source armed");

    t.rig.refreshWith({test::process(1, "org.example.Player", "Player"),
                       test::process(2, "org.example.Notes", "Notes"),
                       test::process(4, "org.example.Playlist", "Playlist")});
    EXPECT_EQ(t.names(t.view->appRows()), (std::vector<std::string>{"Player", "Playlist"}));
    EXPECT_TRUE(t.rig.state->selectedSourceIDs().contains("app:org.example.Notes"));
}

TEST(ContentViewTest, AppearingRefreshesStartsTheTimerAndOpensOnboardingOnce) {
    ViewUnderTest t;
    QStringList opened;
    t.view->setOpenWindow([&](const QString& id) { opened << id; });
    const int calls = t.rig.listings->processCalls;
    t.view->show();
    EXPECT_TRUE(pumpUntil([&] { return t.rig.listings->processCalls > calls; }));
    EXPECT_TRUE(t.rig.state->isSourceRefreshTimerRunning());
    EXPECT_EQ(opened, QStringList{"onboarding"});
    t.view->hide();
    EXPECT_FALSE(t.rig.state->isSourceRefreshTimerRunning());

    t.rig.state->markOnboardingCompleted();
    t.view->show();
    EXPECT_EQ(opened, QStringList{"onboarding"});
    test::pumpFor(50);  // the refreshes land before the rig goes
}

// Grabs the view once posted layouts have landed (the list's scroll bar) and its panel's grain
// is the one made for the panel's size now (messages change that size; a busy machine makes the
// new grain late); compares it with the reviewed picture.
void shoot(ContentView& view, const char* name) {
    view.show();
    view.grab();
    ConsoleSurface* header = view.header();
    EXPECT_TRUE(QTest::qWaitFor(
        [&] {
            const auto& texture = header->grain().texture();
            return texture && texture->size() == header->size() * header->devicePixelRatio();
        },
        5000));
    test::pumpFor(20);
    EXPECT_TRUE(test::matchesScreenshot(view.grab().toImage(), QString::fromLatin1(name)));
}

TEST(ContentViewTest, WindowPictures) {
    ViewUnderTest t;
    t.rig.refreshWith({test::process(1, "org.example.Player", "Player", true),
                       test::process(2, "org.example.Notes", "Notes"),
                       test::process(3, "org.example.Radio", "Radio", true)},
                      {{5, "usb", "USB Mic"}});
    t.rig.tick({"app:org.example.Player", "mic:usb"});
    t.rig.state->markOnboardingCompleted();
    ASSERT_TRUE(pumpUntil([&] { return t.view->appRows().size() == 3; }));
    t.view->appRows()[0]->fader()->decrement();
    t.view->appRows()[0]->fader()->decrement();
    t.rig.consoleClock.advance(2000ms);  // lamps and knobs settle
    shoot(*t.view, "main-window-idle.png");

    t.view->recordButton()->click();
    ASSERT_TRUE(pumpUntil([&] { return t.rig.state->isRecording(); }));
    t.rig.clock->advance(83s);
    t.rig.tracker.update({{"master", 0.7f}, {"app:org.example.Player", 0.6f}, {"mic:usb", 0.3f}});
    t.rig.consoleClock.advance(600ms);
    shoot(*t.view, "main-window-recording.png");

    // After the stop: an error, a warning and the saved line at once. The saved line names the
    // folder from home, the same on every run.
    const QByteArray home = qgetenv("HOME");
    qputenv("HOME", QFile::encodeName(t.rig.dir.path()));
    t.rig.engines.last().silentSources = {t.rig.state->micSources()[0]};
    t.view->recordButton()->click();
    ASSERT_TRUE(pumpUntil([&] { return !t.rig.state->isBusy(); }));
    t.rig.viewer->opens = false;
    t.view->recordingsFolderButton()->click();
    ASSERT_TRUE(pumpUntil([&] { return t.rig.state->errorMessage().has_value(); }));
    t.rig.consoleClock.advance(3000ms);
    shoot(*t.view, "main-window-messages.png");
    qputenv("HOME", home);
}

/// A made-up language: the texts it knows come back in guillemets.
class GuillemetTranslator : public QTranslator {
public:
    bool isEmpty() const override { return false; }
    QString translate(const char* context, const char* source, const char*, int) const override {
        const QString known[][2] = {{"RecordingSource", "System Audio"},
                                    {"bw::ContentView", "Select sources below"}};
        for (const auto& [where, text] : known) {
            if (where == QLatin1String(context) && text == QLatin1String(source)) {
                return "«" + text + "»";
            }
        }
        return {};
    }
};

TEST(ContentViewTest, ATranslationReachesTheEnginesTextsAndTheWindowsAlike) {
    GuillemetTranslator translator;
    QCoreApplication::installTranslator(&translator);
    Translations::install();
    {
        ViewUnderTest t;
        EXPECT_EQ(t.view->systemRow()->nameLabel()->text(), "«System Audio»");
        EXPECT_EQ(t.view->statusText(), "«Select sources below»");
    }
    QCoreApplication::removeTranslator(&translator);
    setLocalizationLookup(nullptr);
}

}  // namespace
}  // namespace bw
