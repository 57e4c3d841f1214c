#include <gtest/gtest.h>

#include <QApplication>
#include <QCheckBox>
#include <QDir>
#include <QLabel>
#include <QPushButton>
#include <QRadioButton>
#include <QTabWidget>

#include "app/UpdaterService.h"
#include "interface/AboutSettingsView.h"
#include "interface/CheckForUpdatesView.h"
#include "interface/GeneralSettingsView.h"
#include "interface/SettingsView.h"
#include "tests/app/QtTestSupport.h"
#include "tests/interface/ViewRig.h"

namespace bw {
namespace {

using test::pumpUntil;

struct Settings {
    test::ViewRig rig;
    UpdaterService updater{QUrl(), "1.0"};
    std::unique_ptr<SettingsView> view;

    Settings() { make(); }

    void make() {
        view = std::make_unique<SettingsView>(*rig.state, updater);
        view->show();
    }

    GeneralSettingsView& general() const { return *view->general(); }

    /// The places of the checked radio buttons (0 m4a, 1 wav, 2 aiff).
    std::vector<int> checked() const {
        std::vector<int> places;
        const auto& buttons = general().formatButtons();
        for (std::size_t i = 0; i < buttons.size(); ++i) {
            if (buttons[i]->isChecked()) {
                places.push_back(static_cast<int>(i));
            }
        }
        return places;
    }

    /// Whether the format and folder can be changed, and the note is away, as the user sees it.
    void expectEditable(bool editable, const char* when) const {
        for (QRadioButton* button : general().formatButtons()) {
            EXPECT_EQ(button->isEnabled(), editable) << when;
        }
        EXPECT_EQ(general().chooseButton()->isEnabled(), editable) << when;
        EXPECT_EQ(general().sourceFilesBox()->isEnabled(), editable) << when;
        EXPECT_EQ(general().busyNote()->isVisible(), !editable) << when;
        EXPECT_EQ(general().updateButton()->isEnabled(), updater.canCheckForUpdates()) << when;
    }
};

TEST(SettingsViewTest, FormatAndFolderAreLockedFromStartToStop) {
    Settings s;  // its tabs and their width are the settings pictures' to judge
    s.expectEditable(true, "idle");
    EXPECT_EQ(s.general().busyNote()->text(),
              "The format and folder can't change while a recording is in progress.");
    s.general().sourceFilesBox()->click();
    EXPECT_TRUE(s.rig.state->saveSourceFiles());
    s.rig.state->setSaveSourceFiles(false);
    EXPECT_FALSE(s.general().sourceFilesBox()->isChecked());

    s.rig.listSome();
    s.rig.heldPermission = SharedResult<bool>();
    s.rig.engines.script = [](test::FakeRecordingEngine& e) { e.holdStop = true; };
    s.rig.tick({"mic:usb"});
    s.rig.state->toggleRecording();
    ASSERT_TRUE(pumpUntil([&] { return s.rig.state->isStartingRecording(); }));
    s.expectEditable(false, "starting");
    s.rig.heldPermission->set(true);
    ASSERT_TRUE(pumpUntil([&] { return s.rig.state->isRecording(); }));
    s.expectEditable(false, "recording");
    s.rig.state->toggleRecording();
    ASSERT_TRUE(pumpUntil([&] { return s.rig.state->isStoppingRecording(); }));
    s.expectEditable(false, "stopping");
    s.rig.engines.last().finishStop();
    ASSERT_TRUE(pumpUntil([&] { return !s.rig.state->isBusy(); }));
    s.expectEditable(true, "after the recording");
}

TEST(SettingsViewTest, StoredFormatIsShownAndAnOddOneIsKeptUntilTheUserChooses) {
    struct Case {
        QVariant stored;  // invalid: nothing stored
        int shown;
    };
    const std::vector<Case> cases = {
        {QVariant(), 0}, {"wav", 1}, {"aiff", 2}, {"flac", 0}, {"WAV", 0}};
    for (const auto& c : cases) {
        Settings s;
        if (c.stored.isValid()) {
            s.rig.defaults->setValue(AppState::kRecordingFormatKey, c.stored);
        }
        s.rig.makeState();
        s.make();
        EXPECT_EQ(s.checked(), std::vector<int>{c.shown}) << c.stored.toString().toStdString();
        EXPECT_EQ(s.rig.defaults->value(AppState::kRecordingFormatKey), c.stored);
    }

    Settings s;
    s.rig.defaults->setValue(AppState::kRecordingFormatKey, "flac");
    s.rig.makeState();
    s.make();
    s.general().formatButtons()[2]->click();
    EXPECT_EQ(s.rig.state->recordingFormatRaw(), "aiff");
    EXPECT_EQ(s.rig.defaults->value(AppState::kRecordingFormatKey), "aiff");
    EXPECT_EQ(s.checked(), std::vector<int>{2});
}

TEST(SettingsViewTest, OnlyAConfirmedFolderChoiceChangesTheFolder) {
    Settings s;
    const QString chosen = s.rig.dir.filePath("Elsewhere");
    ASSERT_TRUE(QDir().mkpath(chosen));
    const QString before = s.rig.state->recordingsFolderURL().toLocalFile();

    // Cancelled: nothing changes. The dialog is a window of its own, not modal.
    s.general().chooseButton()->click();
    QPointer<QFileDialog> dialog = s.general().folderDialog();
    ASSERT_TRUE(dialog);
    EXPECT_TRUE(dialog->isVisible());
    EXPECT_FALSE(dialog->isModal());
    EXPECT_EQ(dialog->windowModality(), Qt::NonModal);
    EXPECT_EQ(dialog->fileMode(), QFileDialog::Directory);
    dialog->setDirectory(chosen);
    dialog->reject();
    EXPECT_EQ(s.rig.state->recordingsFolderPath(), "");
    EXPECT_FALSE(s.rig.defaults->contains(AppState::kRecordingsFolderPathKey));
    EXPECT_EQ(s.rig.state->recordingsFolderURL().toLocalFile(), before);
    ASSERT_TRUE(pumpUntil([&] { return dialog.isNull(); }));  // closed dialogs go

    // Confirmed: the chosen folder is stored.
    s.general().chooseButton()->click();
    dialog = s.general().folderDialog();
    ASSERT_TRUE(dialog);
    dialog->setDirectory(chosen);
    static_cast<QDialog*>(dialog.data())->done(QDialog::Accepted);
    EXPECT_EQ(s.rig.state->recordingsFolderPath().toStdString(), chosen.toStdString());
    EXPECT_EQ(s.rig.defaults->value(AppState::kRecordingsFolderPathKey).toString(),
              s.rig.state->recordingsFolderPath());
    EXPECT_EQ(s.general().folderLine()->toolTip(), s.rig.state->recordingsFolderPath());
}

TEST(SettingsViewTest, LongFolderKeepsBothEndsAndTheTooltipHoldsItWhole) {
    Settings s;
    const QString path = "/srv/" + QString("very-long-folder-name/").repeated(12) + "Takes";
    s.rig.state->setRecordingsFolderPath(path);
    QApplication::processEvents();
    const QString line = s.general().folderLine()->text();
    const QString whole = s.general().folderDisplayPath();
    EXPECT_LT(line.size(), whole.size());
    EXPECT_TRUE(line.contains(QChar(0x2026)));
    EXPECT_EQ(line.left(6), whole.left(6));
    EXPECT_EQ(line.right(5), "Takes");
    EXPECT_EQ(s.general().folderLine()->toolTip(), path);
}

TEST(SettingsViewTest, UpdateButtonFollowsTheUpdater) {
    Settings s;
    EXPECT_FALSE(s.general().updateButton()->isEnabled());  // this build has no feed to check
    UpdaterService withFeed(QUrl("http://127.0.0.1:9/appcast.xml"), "1.0");
    CheckForUpdatesView button(withFeed);
    EXPECT_TRUE(button.isEnabled());
}

TEST(SettingsViewTest, VersionTextWithAndWithoutBuildValues) {
    struct Case {
        QVariant version;
        QVariant build;
        QString text;
    };
    const std::vector<Case> cases = {
        {"2.3", "41", "2.3 (41)"},
        {QVariant(), QVariant(), "1.0 (1)"},
        {"0.4.1", QVariant(), "0.4.1 (1)"},
        {QVariant(2), "7", "1.0 (7)"},  // a number is not a text
    };
    for (const auto& c : cases) {
        EXPECT_EQ(AboutSettingsView::versionText(c.version, c.build), c.text);
    }
    AboutSettingsView about;
    EXPECT_EQ(AboutSettingsView::buildShortVersion().typeId(), QMetaType::QString);
    // The version line and the address are in the picture; where the link leads is not.
    EXPECT_TRUE(about.mailLink()->text().contains("mailto:support@tallowfields.com"));
}

}  // namespace
}  // namespace bw
