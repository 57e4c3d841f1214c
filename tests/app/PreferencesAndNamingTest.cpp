#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSignalSpy>
#include <future>
#include <set>

#include "app/OutputNaming.h"
#include "tests/app/AppRig.h"

namespace bw::test {
namespace {

const QDateTime kDate(QDate(2026, 3, 14), QTime(9, 26, 53));
const QString kBase = "Recording 2026-03-14 at 09.26.53";

void touch(const QString& path) {
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << path.toStdString();
}

TEST(OutputNamingTest, TheFirstFreeNameIsTakenFromTheBottomAndReservedEmpty) {
    struct Case {
        QStringList files, folders;
        QString expected;
        QString inside = "";  // a folder under the temporary one
    };
    const Case cases[] = {
        {{}, {}, kBase + ".m4a"},
        {{kBase + ".m4a"}, {}, kBase + " (2).m4a"},
        {{kBase + ".m4a", kBase + " (2).m4a"}, {}, kBase + " (3).m4a"},
        {{kBase + " (2).m4a"}, {}, kBase + ".m4a"},
        {{kBase + ".m4a", kBase + " (3).m4a"}, {}, kBase + " (2).m4a"},
        {{}, {kBase + ".m4a"}, kBase + " (2).m4a"},
        {{kBase + ".wav"}, {}, kBase + ".m4a"},
        // A folder that cannot be made still gives the name.
        {{"plain-file"}, {}, "plain-file/takes/" + kBase + ".m4a", "plain-file/takes"},
    };
    for (const auto& c : cases) {
        QTemporaryDir dir;
        for (const auto& f : c.files) {
            touch(dir.filePath(f));
        }
        for (const auto& f : c.folders) {
            QDir(dir.path()).mkdir(f);
        }
        const QUrl url =
            OutputNaming::makeOutputURL(QUrl::fromLocalFile(dir.filePath(c.inside)), kDate, "m4a");
        EXPECT_EQ(url, QUrl::fromLocalFile(dir.filePath(c.expected)))
            << c.files.join(",").toStdString();
        EXPECT_EQ(QFileInfo(url.toLocalFile()).size(), 0);
    }
}

TEST(OutputNamingTest, RacingStartsGetDistinctNamesInAFolderMadeForThem) {
    QTemporaryDir dir;
    const QUrl folder = QUrl::fromLocalFile(dir.filePath("new/inner"));
    std::vector<std::future<QUrl>> racers;
    for (int i = 0; i < 8; ++i) {
        racers.push_back(std::async(
            std::launch::async, [&] { return OutputNaming::makeOutputURL(folder, kDate, "wav"); }));
    }
    std::set<QString> names;
    for (auto& racer : racers) {
        names.insert(racer.get().fileName());
    }
    EXPECT_EQ(names.size(), 8u);
    EXPECT_TRUE(names.contains(kBase + ".wav"));
    EXPECT_TRUE(names.contains(kBase + " (8).wav"));
}

TEST(OutputNamingTest, ASourcesOwnFileIsNamedAfterTheRecordingAndTheSourceMadeSafe) {
    const std::pair<QString, QString> names[] = {
        {"USB Mic", "USB Mic"},
        {"Call: Anna/Ben\\*?\"<>|", "Call- Anna-Ben-------"},
        {"..hidden", "hidden"},
        {"  two \t words\n", "two - words-"},
        {"", "Source"},
        {QString(200, 'x'), QString(120, 'x')},
        {QString::fromUtf8("🎵").repeated(40), QString::fromUtf8("🎵").repeated(30)},
    };
    for (const auto& [name, safe] : names) {
        EXPECT_EQ(OutputNaming::safeFileNamePart(name), safe) << name.toStdString();
    }

    struct Case {
        QStringList files;
        QString recording, source, expected;
    };
    const Case cases[] = {
        {{}, kBase + ".m4a", "USB Mic", kBase + " – USB Mic.m4a"},
        {{kBase + " – pw-play.m4a"}, kBase + ".m4a", "pw-play", kBase + " – pw-play (2).m4a"},
        {{}, kBase + " (2).wav", "a/b", kBase + " (2) – a-b.wav"},
    };
    for (const auto& c : cases) {
        QTemporaryDir dir;
        for (const auto& f : c.files) {
            touch(dir.filePath(f));
        }
        const QUrl url = OutputNaming::makeSourceFileURL(
            QUrl::fromLocalFile(dir.filePath(c.recording)), c.source);
        EXPECT_EQ(url, QUrl::fromLocalFile(dir.filePath(c.expected))) << c.expected.toStdString();
        EXPECT_EQ(QFileInfo(url.toLocalFile()).size(), 0) << "reserved";
    }
}

TEST(OutputNamingTest, DisplayPathShowsTheFolderBelowHomeWithoutATilde) {
    const std::pair<QString, QString> cases[] = {
        {"/Users/me", "~"},
        {"/Users/me/", "~"},
        {"/Users/me/Music/BrightwaveRecord", "Music ▸ BrightwaveRecord"},
        {"/Volumes/Disk/Takes", "Volumes ▸ Disk ▸ Takes"},
        {"/Users/me2/x", "Users ▸ me2 ▸ x"},
        {"/Users/me/a/../b", "b"},
        {"/", "/"},
    };
    for (const auto& [path, shown] : cases) {
        EXPECT_EQ(OutputNaming::displayPath(QUrl::fromLocalFile(path), "/Users/me"), shown)
            << path.toStdString();
    }
}

TEST(OutputNamingTest, TheDefaultFolderIsTheFirstMusicFolderElseMusicUnderHome) {
    EXPECT_EQ(OutputNaming::defaultRecordingsFolder({"/m/one", "/m/two"}, "/home/u"),
              QUrl::fromLocalFile("/m/one/BrightwaveRecord"));
    EXPECT_EQ(OutputNaming::defaultRecordingsFolder({}, "/home/u"),
              QUrl::fromLocalFile("/home/u/Music/BrightwaveRecord"));
}

TEST(PreferencesTest, AnEmptyStoreGivesTheDefaultsAndEveryChangeIsWrittenAtOnce) {
    AppRig rig;
    EXPECT_FALSE(rig.state->passthroughEnabled());
    EXPECT_EQ(rig.state->recordingFormatRaw(), "m4a");
    EXPECT_EQ(rig.state->recordingsFolderPath(), "");
    EXPECT_EQ(rig.state->recordingsFolderURL(),
              QUrl::fromLocalFile(rig.dir.filePath("Music/BrightwaveRecord")));
    EXPECT_FALSE(rig.state->hasCompletedOnboarding());
    EXPECT_FALSE(rig.state->saveSourceFiles());
    EXPECT_FALSE(rig.state->errorMessage().has_value());

    QSignalSpy format(rig.state.get(), &AppState::recordingFormatRawChanged);
    rig.state->setPassthroughEnabled(true);
    rig.state->setRecordingFormatRaw("wav");
    rig.state->setRecordingFormatRaw("wav");
    rig.state->setRecordingsFolderPath("/srv/takes");
    rig.state->markOnboardingCompleted();
    rig.state->setSaveSourceFiles(true);
    EXPECT_EQ(format.count(), 2);
    EXPECT_EQ(rig.state->recordingsFolderURL(), QUrl::fromLocalFile("/srv/takes"));

    // On disk already, not only in the store's cache, so any end of the program keeps them.
    QFile file(rig.dir.filePath("defaults.ini"));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray onDisk = file.readAll();
    for (const char* line :
         {"passthroughEnabled=true", "recordingFormat=wav", "recordingsFolderPath=/srv/takes",
          "hasCompletedOnboarding=true", "saveSourceFiles=true"}) {
        EXPECT_TRUE(onDisk.contains(line)) << line;
    }
}

TEST(PreferencesTest, StoredValuesAreReadAtCreationAndAnOddFormatIsKept) {
    AppRig rig;
    rig.defaults->setValue("passthroughEnabled", true);
    rig.defaults->setValue("recordingFormat", "ogg");
    rig.defaults->setValue("recordingsFolderPath", rig.dir.filePath("takes"));
    rig.makeState();
    EXPECT_TRUE(rig.state->passthroughEnabled());
    EXPECT_EQ(rig.state->recordingFormatRaw(), "ogg");

    rig.refreshWith({process(1, "a", "A")});
    rig.tick({"app:a"});
    QCoro::waitFor(rig.state->startRecording());
    EXPECT_EQ(rig.engines.last().configuration.format, RecordingFormat::m4a);
    EXPECT_EQ(QString::fromStdString(rig.engines.last().configuration.fileURL),
              rig.dir.filePath("takes/" + kBase + ".m4a"));
    EXPECT_EQ(rig.defaults->value("recordingFormat").toString(), "ogg");

    // As the store reads it back from disk; anything but true is false.
    for (const auto& [stored, read] : {std::pair{"true", true}, {"yes please", false}}) {
        rig.defaults->setValue("saveSourceFiles", stored);
        rig.makeState();
        EXPECT_EQ(rig.state->saveSourceFiles(), read) << stored;
    }
}

TEST(PreferencesTest, OpeningTheFolderCreatesItOrSaysWhyItCouldNot) {
    struct Case {
        QString folder;
        bool viewerOpens;
        QString message;  // empty: none
    };
    QTemporaryDir dir;
    touch(dir.filePath("file"));
    const Case cases[] = {
        {dir.filePath("a/b"), true, ""},
        {dir.path(), true, ""},
        {dir.filePath("file/sub"), true,
         "The recordings folder could not be created: Not a directory"},
        {dir.filePath("c"), false, "The recordings folder could not be opened."},
    };
    for (const auto& c : cases) {
        AppRig rig;
        rig.viewer->opens = c.viewerOpens;
        QCoro::waitFor(rig.state->openRecordingsFolder(QUrl::fromLocalFile(c.folder)));
        EXPECT_EQ(rig.state->errorMessage().value_or(""), c.message) << c.folder.toStdString();
        if (c.message.startsWith("The recordings folder could not be created")) {
            EXPECT_TRUE(rig.viewer->opened.empty());
        } else {
            EXPECT_TRUE(QFileInfo(c.folder).isDir());
            EXPECT_EQ(rig.viewer->opened, std::vector<QUrl>{QUrl::fromLocalFile(c.folder)});
        }
    }
}

}  // namespace
}  // namespace bw::test
