// Recordings made through the real main window on a private audio server, driven as a user
// drives it: the application's row ticked, the record key pressed, pressed again. The program
// under test is the real one (shared state, PipeWire hardware, FFmpeg files); only the display is
// offscreen.
#include <gtest/gtest.h>

#include <QApplication>
#include <QSettings>
#include <QTest>
#include <filesystem>
#include <fstream>

#include "app/AppState.h"
#include "interface/ContentView.h"
#include "interface/RecordButton.h"
#include "interface/SourceRowView.h"
#include "shell/BrightwaveRecordApp.h"
#include "shell/MainWindow.h"
#include "tests/app/QtTestSupport.h"
#include "tests/e2e/LiveRig.h"
#include "tests/support/DecodedAudio.h"
#include "tests/support/SignalAnalysis.h"

namespace bw::test {
namespace {

namespace fs = std::filesystem;
using live::AudioServer;
using live::Child;
using live::run;
using live::secondsSince;
using SteadyClock = std::chrono::steady_clock;

constexpr double kToneHz = 440;
const QString kPlayerName = QStringLiteral("Tone Player");

const fs::path kAudioServer = fs::path(BW_SOURCE_DIR) / "scripts" / "audio-server";
AudioServer server;
std::string serverError;
fs::path toneFile;
bool serverStarted = false;
Child player;  // one for every case, so the listed application stays the same

/// Starts the private server, prepared by `main`, and the player, unless started already.
bool ensureServer() {
    if (!serverStarted && serverError.empty()) {
        serverError = server.call(kAudioServer, "start", server.dir());
        serverStarted = serverError.empty();
        if (serverStarted) {
            player = Child::spawn({"pw-play", "-P", "node.name=bw-window-tone", toneFile.string()});
        }
    }
    return serverStarted;
}

/// Runs the event loop until `done` holds or `seconds` have passed.
bool pumpUntilFor(double seconds, const std::function<bool()>& done) {
    const auto start = SteadyClock::now();
    while (!done()) {
        if (secondsSince(start) > seconds) {
            return false;
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    }
    return true;
}

void pumpSeconds(double seconds) {
    pumpUntilFor(seconds, [] { return false; });
}

/// The program as `main` makes it, but ending into a flag instead of leaving the event loop.
struct ProgramRig {
    int terminations = 0;
    std::unique_ptr<BrightwaveRecordApp> app;

    ProgramRig() {
        auto dependencies = BrightwaveRecordApp::system();
        dependencies.terminate = [this] { ++terminations; };
        app = std::make_unique<BrightwaveRecordApp>(std::move(dependencies));
        app->openWindow(QStringLiteral("main"));
    }
    ~ProgramRig() {
        if (app->mainWindow()) {
            app->mainWindow()->close();
        }
        app.reset();
        QCoreApplication::processEvents();
    }

    ContentView& content() const { return *app->mainWindow()->contentView(); }
    AppState& state() const { return AppState::shared(); }

    /// The player's row, once the list shows it within `seconds` (it refreshes every 5 seconds).
    SourceRowView* playerRow(double seconds = 15) const {
        SourceRowView* found = nullptr;
        pumpUntilFor(seconds, [&] {
            for (SourceRowView* row : content().appRows()) {
                found = row->source().name == kPlayerName.toStdString() ? row : found;
            }
            return found != nullptr;
        });
        return found;
    }

    /// Ticks the player with a click on its row, unless ticked, and presses the record key.
    void startRecordingThePlayer() {
        SourceRowView* row = playerRow();
        ASSERT_NE(row, nullptr) << "the player never appeared in the list";
        // The shared state keeps an earlier case's tick, as the program keeps it between takes.
        if (!row->isSelected()) {
            QTest::mouseClick(row->tickArea(), Qt::LeftButton);
        }
        ASSERT_TRUE(row->isSelected());
        QTest::mouseClick(content().recordButton(), Qt::LeftButton);
        ASSERT_TRUE(pumpUntilFor(10, [&] { return state().isRecording(); }))
            << state().errorMessage().value_or(QStringLiteral("no message")).toStdString();
    }
};

/// The file's tone: its frequency and level over the middle of the take.
void expectTheTone(const fs::path& file, double atLeastSeconds) {
    const auto audio = decodeAudioFile(file);
    ASSERT_TRUE(audio) << "can't decode " << file;
    EXPECT_EQ(audio->sampleRate, 48000);
    ASSERT_EQ(audio->channels, 2);
    const double seconds = double(audio->frames()) / audio->sampleRate;
    EXPECT_GE(seconds, atLeastSeconds) << file;
    const std::vector<float>& left = audio->channelsData[0];
    const std::size_t skip = std::size_t(0.25 * audio->sampleRate);
    ASSERT_GT(left.size(), 2 * skip);
    const std::span<const float> middle(left.data() + skip, left.size() - 2 * skip);
    EXPECT_NEAR(dominantFrequency(middle, audio->sampleRate, 100, 4000), kToneHz, 2.0);
    EXPECT_GT(rmsDb(middle), -30.0) << "the application's sound is missing";
}

TEST(WindowRecordingTest, AServerStartedAfterTheProgramFillsItsListWithinTwoSeconds) {
    ASSERT_TRUE(serverError.empty()) << serverError;
    if (serverStarted) {
        GTEST_SKIP() << "the server was started by an earlier case";
    }
    ProgramRig rig;  // looks for a server that isn't there yet
    pumpSeconds(2.0);
    EXPECT_TRUE(rig.content().appRows().empty());
    ASSERT_TRUE(ensureServer()) << serverError;
    const auto up = SteadyClock::now();
    ASSERT_NE(rig.playerRow(5), nullptr) << "the player never appeared in the list";
    const double after = secondsSince(up);
    ::testing::Test::RecordProperty("listed_after_server_s", std::to_string(after));
    EXPECT_LE(after, 2.0);
}

TEST(WindowRecordingTest, TickingTheRowAndPressingTheKeyTwiceRecordsTheApplication) {
    ASSERT_TRUE(ensureServer()) << serverError;
    ProgramRig rig;
    rig.startRecordingThePlayer();
    ASSERT_FALSE(::testing::Test::HasFatalFailure());
    EXPECT_TRUE(rig.app->menuBarExtra() != nullptr);
    pumpSeconds(2.0);
    QTest::mouseClick(rig.content().recordButton(), Qt::LeftButton);
    ASSERT_TRUE(pumpUntilFor(10, [&] { return rig.state().savedMessage().has_value(); }));
    ASSERT_TRUE(rig.state().lastRecordingURL().has_value());
    expectTheTone(rig.state().lastRecordingURL()->toLocalFile().toStdString(), 1.5);
    EXPECT_EQ(rig.terminations, 0);
}

TEST(WindowRecordingTest, QuittingDuringARecordingFinishesTheFileBeforeTheProgramEnds) {
    ASSERT_TRUE(ensureServer()) << serverError;
    ProgramRig rig;
    rig.startRecordingThePlayer();
    ASSERT_FALSE(::testing::Test::HasFatalFailure());
    pumpSeconds(1.5);
    std::optional<fs::path> fileAtTheEnd;
    QObject::connect(rig.app.get(), &BrightwaveRecordApp::terminating, [&] {
        fileAtTheEnd = rig.state().lastRecordingURL()->toLocalFile().toStdString();
    });
    rig.app->mainWindow()->quitAction()->trigger();
    ASSERT_TRUE(pumpUntilFor(10, [&] { return rig.terminations == 1; }));
    ASSERT_TRUE(fileAtTheEnd.has_value());
    // The file was complete when the program was told it may end.
    expectTheTone(*fileAtTheEnd, 1.0);
}

}  // namespace
}  // namespace bw::test

int main(int argc, char** argv) {
    using namespace bw::test;
    ::testing::InitGoogleTest(&argc, argv);
    // The server itself starts with the first case: the program may come before it.
    std::string folder = (fs::temp_directory_path() / "bw-window.XXXXXX").string();
    serverError = mkdtemp(folder.data()) == nullptr ? "no folder for the server"
                                                    : server.call(kAudioServer, "prepare", folder);
    if (serverError.empty()) {
        // The program reaches the private server, its settings and desktop entries through these.
        for (const auto& [name, value] : server.env()) {
            setenv(name.c_str(), value.c_str(), 1);
        }
        const fs::path data = server.env().at("XDG_DATA_HOME");
        fs::create_directories(data / "applications");
        std::ofstream(data / "applications" / "org.example.TonePlayer.desktop")
            << "[Desktop Entry]\nType=Application\nName=Tone Player\nExec=pw-play\n";
        toneFile = server.dir() / "tone440.wav";
        const auto made =
            live::run({"ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
                       "sine=frequency=440:sample_rate=48000:duration=60", "-af",
                       "volume=2,pan=stereo|c0=c0|c1=c0", "-c:a", "pcm_s16le", toneFile.string()});
        if (!made.succeeded()) {
            serverError = "ffmpeg could not make the test tone";
        }
    } else {
        serverError = "PipeWire could not be started: " + serverError;
    }
    qputenv("QT_QPA_PLATFORM", "offscreen");
    // The desktop's settings store would hold a connection to the private session bus, and
    // GLib ends a process whose session bus goes away, as the server's does at the end.
    qputenv("GSETTINGS_BACKEND", "memory");
    QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    {
        // A first launch would open the walkthrough over the window; this one has seen it.
        QSettings settings(QStringLiteral("tallowfields"), QStringLiteral("BrightwaveRecord"));
        settings.setValue(QString::fromLatin1(bw::AppState::kHasCompletedOnboardingKey), true);
        settings.setValue(QString::fromLatin1(bw::AppState::kRecordingFormatKey),
                          QStringLiteral("wav"));
    }
    const int result = RUN_ALL_TESTS();
    player.stop();
    server.stop();
    return result;
}
