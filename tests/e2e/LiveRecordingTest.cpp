// Real recordings through record-live on a private PipeWire server: test "applications" are
// pw-play processes playing generated tones, and every file is checked twice, with ffprobe (what
// it is) and with an independent decoder (what it holds).

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tests/e2e/LiveRig.h"
#include "tests/support/DecodedAudio.h"
#include "tests/support/SignalAnalysis.h"

namespace {

namespace fs = std::filesystem;
using namespace bw::test;
using namespace bw::test::live;

constexpr double kRate = 48000.0;
constexpr double kLevelToleranceDb = 1.0;
constexpr const char* kSpeakers = "bw_speakers";
constexpr const char* kMicrophone = "bw_microphone";
const fs::path kAudioServer = fs::path(BW_SOURCE_DIR) / "scripts" / "audio-server";
// What ffprobe must call the stream of each format.
const std::map<std::string, std::string> kCodecs = {
    {"m4a", "aac"}, {"wav", "pcm_s16le"}, {"aiff", "pcm_s16be"}};

// A generated file that a test application plays, and the level of its tone.
struct Tone {
    fs::path file;
    double frequency = 0;
    double levelDb = 0;  // of each channel, as the decoder reads the file itself
};

std::string sine(int frequency) {
    return "sine=frequency=" + std::to_string(frequency) + ":sample_rate=48000:duration=30";
}

// The private server shared by every case, and the files the test applications play.
class LiveServer : public ::testing::Environment {
public:
    void SetUp() override {
        char pattern[] = "/tmp/bw-e2e.XXXXXX";
        work = mkdtemp(pattern) == nullptr ? "" : pattern;
        error = work.empty() ? "no temporary folder" : server_.call(kAudioServer, "start");
        if (!error.empty()) {
            // Not fatal here, so that every case runs and fails on this message rather than being
            // skipped.
            error = "PipeWire could not be started for the live recording tests: " + error;
            ADD_FAILURE() << error;
            return;
        }
        // Children (pw-play, record-live, pw-link, ...) inherit the private server.
        for (const auto& [name, value] : server_.env()) {
            setenv(name.c_str(), value.c_str(), 1);
        }
        // Sines of 1/8 full scale, doubled: a quarter of full scale, stereo without the upmix's
        // -3 dB; long enough for every case.
        const std::string stereo = "volume=2,pan=stereo|c0=c0|c1=c0";
        tone440 = makeTone("tone440.wav", 440, sine(440), stereo, 2);
        tone660 = makeTone("tone660.wav", 660, sine(660), stereo, 2);
        mic880 = makeTone("mic880.wav", 880, sine(880), "volume=2", 1);
        // Clicks twice a second, four samples at half of full scale: alone on the left, over a
        // 660 Hz tone on the right.
        clicks660 = makeTone("clicks660.wav", 660,
                             "aevalsrc=exprs='0.5*lt(mod(n,24000),4)|0.25*sin(2*PI*660*t)+0.5*"
                             "lt(mod(n,24000),4)':s=48000:d=30",
                             "anull", 2);
        if (!error.empty()) {
            ADD_FAILURE() << error;
        }
    }

    void TearDown() override {
        server_.stop();
        if (!work.empty() && std::getenv("BW_E2E_KEEP") == nullptr) {
            std::error_code ignored;
            fs::remove_all(work, ignored);
        }
    }

    std::string error;
    fs::path work;
    Tone tone440, tone660, mic880, clicks660;

private:
    // The tone is read on the file's last channel.
    Tone makeTone(const std::string& name, double frequency, const std::string& source,
                  const std::string& filter, int channels) {
        Tone tone{work / name, frequency, 0};
        const bool made =
            run({"ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", source, "-af", filter, "-ac",
                 std::to_string(channels), "-c:a", "pcm_s16le", tone.file.string()})
                .succeeded();
        const auto decoded = made ? decodeAudioFile(tone.file) : std::nullopt;
        if (!decoded || decoded->frames() < std::size_t(2 * kRate)) {
            error = "ffmpeg could not generate a decodable " + tone.file.string();
            return tone;
        }
        tone.levelDb = toneLevelDb(
            std::span(decoded->channelsData.back()).subspan(std::size_t(kRate), std::size_t(kRate)),
            frequency, kRate);
        return tone;
    }

    AudioServer server_;
};

auto* const server = static_cast<LiveServer*>(::testing::AddGlobalTestEnvironment(new LiveServer));

// ---------------------------------------------------------------------------------------------
// Running record-live

// What a take of record-live ended with; its JSON line has the engine's counts.
struct Report {
    bool finished = false;  // ended by itself before the deadline
    int status = -1;
    double elapsed = 0;  // seconds from start to end
    std::string json;
    std::optional<std::string> failure;  // the failure that ended the recording, if any

    std::string field(const char* key) const { return jsonField(json, key).value_or(""); }
    long long number(const char* key) const {
        const auto value = jsonField(json, key);
        return value ? std::atoll(value->c_str()) : -1;
    }
    bool exitedCleanly() const { return finished && WIFEXITED(status) && WEXITSTATUS(status) == 0; }
    // Ran its course: exit status 0, no failure, every source started.
    bool completed() const {
        return exitedCleanly() && !failure && field("source_failures") == "{}";
    }
    std::string describe() const {
        const std::string how = !finished ? "still running at its deadline"
                                : WIFSIGNALED(status)
                                    ? "killed by signal " + std::to_string(WTERMSIG(status))
                                    : "exit status " + std::to_string(WEXITSTATUS(status));
        return how + "; printed: " + json;
    }
};

// record-live writing `file` (its extension is the format) for `seconds`.
class Take {
public:
    Take(const fs::path& file, double seconds, const std::vector<std::string>& sources,
         bool passthrough = false, const Env& env = {})
        : file_(file), output_(fs::path(file).replace_extension(".json")) {
        const std::string format = file.extension().string().substr(1);
        std::vector<std::string> argv = {BW_RECORD_LIVE, "--seconds", std::to_string(seconds),
                                         "--format",     format,      "--out",
                                         file.string()};
        if (passthrough) {
            argv.push_back("--passthrough");
        }
        argv.insert(argv.end(), sources.begin(), sources.end());
        started_ = Clock::now();
        process_ = Child::spawn(argv, env, output_);
    }

    double secondsSinceStart() const { return secondsSince(started_); }
    /// Ends the recorder at once, as a crash or a power cut would.
    void kill() { ::kill(process_.pid(), SIGKILL); }

    /// Waits for the file to appear, which it does once the recording has begun.
    bool waitForFile(double timeout) {
        return eventually(timeout, [&] { return fs::exists(file_) || !process_.running(); }) &&
               fs::exists(file_);
    }

    /// Waits until `deadline` seconds after the start; a take still running then is killed.
    Report finish(double deadline) {
        Report report;
        const auto status = process_.wait(std::max(0.0, deadline - secondsSinceStart()));
        report.elapsed = secondsSinceStart();
        if (!status) {
            process_.stop();
            return report;
        }
        report.finished = true;
        report.status = *status;
        report.json = readFile(output_);
        if (const auto failure = jsonField(report.json, "failure"); failure && *failure != "null") {
            report.failure = *failure;
        }
        return report;
    }

private:
    fs::path file_;
    fs::path output_;
    Clock::time_point started_;
    Child process_;
};

// A take of `seconds` that nothing interrupts.
Report record(const fs::path& file, double seconds, const std::vector<std::string>& sources,
              bool passthrough = false) {
    return Take(file, seconds, sources, passthrough).finish(seconds + 10);
}

std::string appSource(const Child& app) {
    return "app:pid:" + std::to_string(app.pid());
}

// ---------------------------------------------------------------------------------------------
// Reading what was recorded

double durationOf(const DecodedAudio& audio) {
    return double(audio.frames()) / kRate;
}

std::span<const float> secondsOf(const DecodedAudio& audio, std::size_t channel, double from,
                                 double to) {
    const auto& samples = audio.channelsData.at(channel);
    const auto begin = std::min(samples.size(), std::size_t(std::max(0.0, from) * kRate));
    const auto end = std::min(samples.size(), std::size_t(std::max(0.0, to) * kRate));
    return std::span(samples).subspan(begin, end > begin ? end - begin : 0);
}

// The tone's level in [from, to) seconds of one channel; `to` past the end reads to the end.
double levelIn(const DecodedAudio& audio, std::size_t channel, double frequency, double from,
               double to) {
    return toneLevelDb(secondsOf(audio, channel, from, to), frequency, kRate);
}

double rmsIn(const DecodedAudio& audio, std::size_t channel, double from, double to) {
    return rmsDb(secondsOf(audio, channel, from, to));
}

// The tone at its own level on both channels in [from, to) seconds, or (`present` false) not
// there at all.
void expectTone(const DecodedAudio& audio, const Tone& tone, double from, double to,
                const std::string& when, bool present = true) {
    for (std::size_t ch = 0; ch < 2; ++ch) {
        const double level = levelIn(audio, ch, tone.frequency, from, to);
        if (present) {
            EXPECT_NEAR(level, tone.levelDb, kLevelToleranceDb) << when << ", channel " << ch;
        } else {
            EXPECT_LT(level, tone.levelDb - 50) << when << ", channel " << ch;
        }
    }
}

std::optional<DecodedAudio> decode(const fs::path& file) {
    auto audio = decodeAudioFile(file);
    EXPECT_TRUE(audio) << "can't decode " << file;
    if (audio) {
        EXPECT_EQ(audio->channelsData.size(), 2u) << file;
    }
    return audio;
}

// A finished recording as ffprobe sees it (the format's codec, 48 kHz stereo, `seconds` long when
// given, the length players show is the one heard), decoded; with `framesWritten`, the frames the
// engine says it wrote are the ones in the file.
std::optional<DecodedAudio> recorded(const fs::path& file, std::optional<double> seconds,
                                     long long framesWritten = -1) {
    SCOPED_TRACE(file.string());
    const Probe p = probe(file);
    EXPECT_TRUE(p.ok) << "ffprobe can't read the file: " << p.text;
    EXPECT_EQ(p.codecName, kCodecs.at(file.extension().string().substr(1)));
    EXPECT_EQ(p.sampleRate, 48000);
    EXPECT_EQ(p.channels, 2);
    if (seconds) {
        EXPECT_NEAR(p.duration, *seconds, 0.25);
    }
    auto audio = decode(file);
    if (audio) {
        EXPECT_NEAR(p.duration, durationOf(*audio), 0.05) << "the length shown isn't heard";
        if (framesWritten >= 0) {
            EXPECT_NEAR(double(framesWritten) / kRate, durationOf(*audio), 0.05);
        }
    }
    return audio;
}

// ---------------------------------------------------------------------------------------------
// The fixture: test applications and the graph's state

class LiveRecording : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server->error.empty()) << server->error;
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        std::string name = std::string(info->test_suite_name()) + "." + info->name();
        std::replace(name.begin(), name.end(), '/', '_');
        folder_ = server->work / name;
        fs::create_directories(folder_);
    }

    fs::path path(const std::string& name) const { return folder_ / name; }

    // A pw-play of `file` under a node name of its own; returns once it plays into the speakers.
    Child play(const fs::path& file, const std::string& node, const Env& env = {}) {
        Child app = Child::spawn({"pw-play", "-P", "node.name=" + node, file.string()}, env);
        EXPECT_TRUE(app.valid()) << "pw-play did not start";
        const bool playing = eventually(5, [&] {
            const auto fed = nodesFedBy(currentLinks(env), node);
            return std::find(fed.begin(), fed.end(), kSpeakers) != fed.end();
        });
        EXPECT_TRUE(playing) << node << " never reached the speakers; links fed: "
                             << describe(nodesFedBy(currentLinks(env), node));
        return app;
    }

    static std::string metadataText() { return run({"pw-metadata"}, 10).out; }

    // After passthrough: the app plays into the speakers again and no stream keeps a target.
    static void expectRestored(const std::string& node) {
        const bool restored = eventually(3, [&] {
            const auto fed = nodesFedBy(currentLinks(), node);
            return fed == std::vector<std::string>{kSpeakers} &&
                   metadataText().find("'target.object'") == std::string::npos;
        });
        EXPECT_TRUE(restored) << node << " feeds " << describe(nodesFedBy(currentLinks(), node))
                              << "; metadata:\n"
                              << metadataText();
    }

    fs::path folder_;
};

// ---------------------------------------------------------------------------------------------
// a. One application among two, and everything (the formats themselves are the engine tests'
// to check)

TEST_F(LiveRecording, OneApplicationHoldsOnlyItsOwnToneAndSystemHoldsBoth) {
    Child a = play(server->tone440.file, "bw-app-440");
    Child b = play(server->tone660.file, "bw-app-660");
    ASSERT_FALSE(HasFailure());
    for (const std::string& source : {appSource(a), std::string("system")}) {
        SCOPED_TRACE(source);
        const auto file = path(source.substr(0, source.find(':')) + ".m4a");
        const Report report = record(file, 2, {source});
        ASSERT_TRUE(report.completed()) << report.describe();
        EXPECT_EQ(report.number("dropped_buffers"), 0) << report.json;
        EXPECT_EQ(report.field("sources_without_audio"), "[]") << report.json;
        const auto audio = recorded(file, 2.0, report.number("frames_written"));
        ASSERT_TRUE(audio);
        const double end = durationOf(*audio) - 0.2;
        expectTone(*audio, server->tone440, 0.3, end, "the application");
        expectTone(*audio, server->tone660, 0.3, end, "the other one", source == "system");
    }
}

// ---------------------------------------------------------------------------------------------
// b. An application found by its desktop entry: a helper process that starts playing
// mid-recording counts for it

// An application of the desktop: its program is a copy of the launcher under a name of its own,
// so that its desktop entry (bundle ID `bundleID`) names it and nothing else.
fs::path installApplication(const std::string& bundleID, const std::string& name) {
    const fs::path data = std::getenv("XDG_DATA_HOME");
    const fs::path program = data / "bin" / (bundleID + "-" + std::to_string(getpid()));
    fs::create_directories(program.parent_path());
    fs::copy_file(BW_TEST_PARENT, program, fs::copy_options::overwrite_existing);
    fs::create_directories(data / "applications");
    std::ofstream(data / "applications" / (bundleID + ".desktop"))
        << "[Desktop Entry]\nType=Application\nName=" << name << "\nExec=" << program.string()
        << " %U\n";
    return program;
}

// Starts `program` and waits until it has become that program: record-live finds applications
// by their executable.
Child launch(const fs::path& program, const std::vector<std::string>& arguments) {
    std::vector<std::string> argv{program.string()};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    Child child = Child::spawn(argv);
    EXPECT_TRUE(child.valid());
    EXPECT_TRUE(eventually(2, [&] {
        std::error_code error;
        return fs::read_symlink("/proc/" + std::to_string(child.pid()) + "/exe", error) == program;
    }));
    return child;
}

TEST_F(LiveRecording, HelperStartedMidRecordingIsRecordedFromItsFirstSound) {
    const Tone& tone = server->tone440;
    const std::string bundleID = "org.example.LateHelper";
    const fs::path program = installApplication(bundleID, "Late Helper");
    constexpr double kDelay = 1.5;
    const auto spawned = Clock::now();
    Child parent = launch(program, {"--delay-ms", std::to_string(int(kDelay * 1000)),
                                    tone.file.string(), "-P", "node.name=bw-late-helper"});
    ASSERT_FALSE(HasFailure());

    const auto file = path("late-helper.wav");
    Take take(file, 4, {"app:" + bundleID});
    ASSERT_TRUE(take.waitForFile(5)) << "the recording never began";
    const double startOffset = secondsSince(spawned);
    const Report report = take.finish(14);
    ASSERT_TRUE(report.completed()) << report.describe();
    const auto audio = recorded(file, 4.0);
    ASSERT_TRUE(audio);

    // The first 50 ms window where the tone is clearly there.
    constexpr double kWindow = 0.05;
    std::optional<double> onset;
    for (double t = 0; !onset && t + kWindow <= durationOf(*audio); t += kWindow) {
        if (levelIn(*audio, 0, tone.frequency, t, t + kWindow) > tone.levelDb - 6) {
            onset = t;
        }
    }
    ASSERT_TRUE(onset) << "the helper's tone never reached the file";
    // Sound starts 1.5 s after the parent, less the time until record-live had begun.
    const double expected = kDelay - startOffset;
    EXPECT_GT(*onset, expected - 0.4) << "tone before the helper played";
    EXPECT_LT(*onset, expected + 0.6) << "the helper was picked up late";
    for (std::size_t ch = 0; ch < 2; ++ch) {
        EXPECT_LT(rmsIn(*audio, ch, 0.0, *onset - 0.1), tone.levelDb - 50) << "not silent before";
    }
    expectTone(*audio, tone, *onset + 0.3, durationOf(*audio) - 0.1, "once it plays");
}

// ---------------------------------------------------------------------------------------------
// c. A microphone and two applications, each at its own volume, each also in a file of its own

// How far `b` lags `a`, in frames within ±50 ms, where their first differences (the clicks,
// hardly the tones) correlate best over the second from 0.5 s.
long clickLag(const std::vector<float>& a, const std::vector<float>& b) {
    const std::size_t from = std::size_t(0.5 * kRate);
    const std::size_t to = std::min(from + std::size_t(kRate), a.size());
    const long maxLag = long(0.05 * kRate);
    double best = -1;
    long bestLag = 0;
    for (long lag = -maxLag; lag <= maxLag; ++lag) {
        double sum = 0;
        for (std::size_t i = from; i < to; ++i) {
            const std::size_t j = std::size_t(long(i) + lag);
            if (j >= 1 && j < b.size()) {
                sum += double(a[i] - a[i - 1]) * (b[j] - b[j - 1]);
            }
        }
        if (sum > best) {
            best = sum;
            bestLag = lag;
        }
    }
    return bestLag;
}

TEST_F(LiveRecording, MicrophoneAndTwoApplicationsMixAtTheirVolumesAndEachHasItsOwnAlignedFile) {
    // The virtual microphone sounds what is linked into its input; the feed goes nowhere else.
    Child feed = Child::spawn(
        {"pw-play", "--target=0", "-P", "node.name=bw-mic-feed", server->mic880.file.string()});
    ASSERT_TRUE(feed.valid());
    ASSERT_TRUE(eventually(5, [] {
        return run({"pw-link", "-o"}, 10).out.find("bw-mic-feed:") != std::string::npos;
    }));
    const auto linked =
        run({"pw-link", "bw-mic-feed:output_MONO", std::string(kMicrophone) + ":input_MONO"});
    ASSERT_TRUE(linked.succeeded()) << "pw-link failed: " << linked.out;
    ASSERT_EQ(nodesFedBy(currentLinks(), "bw-mic-feed"), std::vector<std::string>{kMicrophone});
    Child app = play(server->tone440.file, "bw-app-440");
    Child clicker = play(server->clicks660.file, "bw-app-clicks");
    ASSERT_FALSE(HasFailure());
    // The clicker's left side, clicks only, sounds in the microphone too: one click, two sources.
    ASSERT_TRUE(
        run({"pw-link", "bw-app-clicks:output_FL", std::string(kMicrophone) + ":input_MONO"})
            .succeeded());

    struct Part {
        std::string id;
        const Tone& tone;
        std::vector<std::size_t> channels;  // where its tone is
        double volume;
        std::string fileName;  // of its own file
    };
    const std::vector<Part> parts = {
        {"mic:bw_microphone", server->mic880, {0, 1}, 0.8, "mic-and-apps – bw_microphone.wav"},
        {appSource(app), server->tone440, {0, 1}, 0.5, "mic-and-apps – pw-play.wav"},
        {appSource(clicker), server->clicks660, {1}, 1.25, "mic-and-apps – pw-play (2).wav"},
    };
    std::vector<std::string> arguments{"--source-files"};
    for (const auto& part : parts) {
        arguments.push_back(part.id + "@" + std::to_string(part.volume));
    }
    const auto file = path("mic-and-apps.wav");
    const Report report = record(file, 3, arguments);
    ASSERT_TRUE(report.completed()) << report.describe();
    EXPECT_EQ(report.number("dropped_buffers"), 0) << report.json;
    EXPECT_EQ(report.field("source_file_failures"), "[]") << report.json;
    const auto mix = recorded(file, 3.0);
    ASSERT_TRUE(mix);
    const double end = durationOf(*mix) - 0.2;
    // Every part at its fader's level where it sounds; with `only`, nothing of the others.
    auto expectParts = [&](const DecodedAudio& audio, const Part* only, double toleranceDb) {
        for (const auto& part : parts) {
            const double level = part.tone.levelDb + 20 * std::log10(part.volume);
            for (std::size_t ch = 0; ch < 2; ++ch) {
                SCOPED_TRACE(part.id + ", channel " + std::to_string(ch));
                const double heard = levelIn(audio, ch, part.tone.frequency, 0.3, end);
                if (only != nullptr && only != &part) {
                    EXPECT_LT(heard, level - 50) << "another source in this one's file";
                } else if (std::count(part.channels.begin(), part.channels.end(), ch)) {
                    EXPECT_NEAR(heard, level, toleranceDb);
                }
            }
        }
    };
    expectParts(*mix, nullptr, kLevelToleranceDb);

    // Each source's own file: only that source, at its fader's level, as long as the mix.
    std::vector<DecodedAudio> owns;
    for (const auto& part : parts) {
        SCOPED_TRACE(part.id);
        const auto own = jsonField(report.field("source_files"), part.id);
        ASSERT_TRUE(own) << report.json;
        EXPECT_EQ(fs::path(*own).filename(), part.fileName);
        auto audio = recorded(*own, std::nullopt);
        ASSERT_TRUE(audio);
        EXPECT_NEAR(double(audio->frames()), double(mix->frames()), 4096) << "one tap buffer";
        expectParts(*audio, &part, 0.5);
        owns.push_back(std::move(*audio));
    }
    // The click both sources carry sits on the same frame in their files and in the mix.
    const auto& micOwn = owns[0].channelsData[0];
    const auto& clicksOwn = owns[2].channelsData[0];
    EXPECT_LE(std::abs(clickLag(clicksOwn, micOwn)), 48) << "between files";
    EXPECT_LE(std::abs(clickLag(clicksOwn, mix->channelsData[0])), 48);
    EXPECT_LE(std::abs(clickLag(micOwn, mix->channelsData[0])), 48);
}

// ---------------------------------------------------------------------------------------------
// d. Passthrough: recorded sound is heard once, through our mix, and the graph is put back

TEST_F(LiveRecording, PassthroughPlaysTheMixInsteadOfTheApplication) {
    const Tone& tone = server->tone440;
    const std::string node = "bw-app-440";
    Child app = play(tone.file, node);
    ASSERT_FALSE(HasFailure());
    const auto monitorFile = path("speakers-monitor.wav");
    Child monitor =
        Child::spawn({"pw-record", "-P", "stream.capture.sink=true node.name=bw-monitor",
                      "--target", kSpeakers, monitorFile.string()});
    ASSERT_TRUE(monitor.valid());
    ASSERT_TRUE(eventually(5, [] { return !nodesFedBy(currentLinks(), kSpeakers).empty(); }))
        << "the monitor of the speakers never got linked";
    const auto monitorStart = Clock::now();

    const auto file = path("passthrough-app.wav");
    Take take(file, 4, {appSource(app)}, true);
    const double recordingStart = secondsSince(monitorStart);
    const bool moved = eventually(3, [&] {
        const auto fed = nodesFedBy(currentLinks(), node);
        return std::any_of(fed.begin(), fed.end(),
                           [](const auto& n) { return n.rfind("brightwave-silence-", 0) == 0; });
    });
    const auto fed = nodesFedBy(currentLinks(), node);
    const std::string metadata = metadataText();
    EXPECT_TRUE(moved) << "the application was never moved to a silent sink; it feeds "
                       << describe(fed);
    EXPECT_EQ(std::find(fed.begin(), fed.end(), kSpeakers), fed.end())
        << "the application still plays into the speakers directly: " << describe(fed);
    EXPECT_NE(metadata.find("'target.object'"), std::string::npos) << metadata;

    const Report report = take.finish(14);
    const double recordingEnd = secondsSince(monitorStart);
    ASSERT_TRUE(report.completed()) << report.describe();
    expectRestored(node);
    sleepSeconds(0.6);
    monitor.stop();  // pw-record closes its file on SIGTERM

    const auto recording = recorded(file, 4.0);
    const auto heard = decode(monitorFile);
    ASSERT_TRUE(recording && heard);
    expectTone(*recording, tone, 0.3, durationOf(*recording) - 0.2, "recorded");
    // The speakers hear the tone exactly once: in the middle of the recording through our mix;
    // after it, from the application on its own.
    const double afterFrom = recordingEnd + 0.3;
    const double afterTo = durationOf(*heard) - 0.1;
    ASSERT_GT(afterTo - afterFrom, 0.2) << "the monitor is too short";
    expectTone(*heard, tone, recordingStart + 1.0, recordingEnd - 1.0, "during the recording");
    expectTone(*heard, tone, afterFrom, afterTo, "after the recording");
}

TEST_F(LiveRecording, PassthroughOfSystemAudioDoesNotRecordItself) {
    const Tone& tone = server->tone440;
    const std::string node = "bw-app-440";
    Child app = play(tone.file, node);
    ASSERT_FALSE(HasFailure());
    const auto file = path("passthrough-system.wav");
    const Report report = record(file, 3, {"system"}, true);
    ASSERT_TRUE(report.completed()) << report.describe();
    expectRestored(node);
    const auto audio = recorded(file, 3.0);
    ASSERT_TRUE(audio);
    const double d = durationOf(*audio);
    ASSERT_GT(d, 2.5);
    for (std::size_t ch = 0; ch < 2; ++ch) {
        // Our own playback fed back in would grow the level second by second.
        EXPECT_NEAR(rmsIn(*audio, ch, 0.2, 1.2), rmsIn(*audio, ch, d - 1.1, d - 0.1), 1.0) << ch;
    }
    // A copy of the application heard twice would read 6 dB up.
    expectTone(*audio, tone, 0.2, d - 0.1, "the whole take");
}

// ---------------------------------------------------------------------------------------------
// d2. The recorder itself dies mid-recording (before any test moves the default output, which
// the session manager would remember for the players that come after)

TEST_F(LiveRecording, AKilledRecorderLeavesAFileThatKeepsItsAudioAndTellsItsLength) {
    const Tone& tone = server->tone440;
    Child app = play(tone.file, "bw-app-killed");
    ASSERT_FALSE(HasFailure());
    const auto file = path("crashed.wav");
    Take take(file, 20, {appSource(app)});
    ASSERT_TRUE(take.waitForFile(5)) << "the recording never began";
    sleepSeconds(5.0);
    take.kill();
    take.finish(5);

    // A strict player believes the header: it must tell about what is there. (Each format's
    // container after a crash is the file tests' to check.)
    const auto claimed = pcmHeaderSeconds(file);
    ASSERT_TRUE(claimed.has_value()) << "the header claims more than the file holds";
    EXPECT_NEAR(*claimed, 5.0, 2.0);
    const auto audio = recorded(file, std::nullopt);
    ASSERT_TRUE(audio);
    EXPECT_GE(durationOf(*audio), 3.5);
    expectTone(*audio, tone, 0.5, 3.0, "before the kill");
}

// ---------------------------------------------------------------------------------------------
// e. The default output changes mid-recording

unsigned nodeId(const std::string& name) {
    const auto out = run({"pw-cli", "info", name}, 10).out;
    const auto at = out.find("id: ");
    return at == std::string::npos ? 0 : unsigned(std::atoi(out.c_str() + at + 4));
}

std::string defaultSink() {
    const auto out = run({"pw-metadata", "0", "default.audio.sink"}, 10).out;
    const auto at = out.find("{\"name\":\"");
    return at == std::string::npos ? "" : out.substr(at + 9, out.find('"', at + 9) - at - 9);
}

// A second sink, gone afterwards with the default back on the speakers.
struct SecondSink {
    SecondSink() {
        run({"pw-cli", "create-node", "adapter",
             "{ factory.name=support.null-audio-sink node.name=bw_headphones "
             "media.class=Audio/Sink audio.position=[FL FR] object.linger=true }"});
        eventually(3, [&] { return (id = nodeId("bw_headphones")) != 0; });
    }
    ~SecondSink() {
        if (speakers != 0) {
            run({"wpctl", "set-default", std::to_string(speakers)});
            eventually(3, [] { return defaultSink() == kSpeakers; });
        }
        if (id != 0) {
            run({"pw-cli", "destroy", std::to_string(id)});
        }
    }
    unsigned id = 0;
    const unsigned speakers = nodeId(kSpeakers);
};

class DefaultOutputSwitch : public LiveRecording, public ::testing::WithParamInterface<bool> {};

TEST_P(DefaultOutputSwitch, RecordingGoesOnOrEndsWithAPlayableFile) {
    const bool passthrough = GetParam();
    SecondSink headphones;
    ASSERT_NE(headphones.id, 0u) << "could not make a second sink";
    Child app = play(server->tone440.file, "bw-app-440");
    ASSERT_FALSE(HasFailure());

    const auto file = path("switch.m4a");
    Take take(file, 4, {appSource(app)}, passthrough);
    sleepSeconds(1.5);
    ASSERT_TRUE(run({"wpctl", "set-default", std::to_string(headphones.id)}).succeeded());
    EXPECT_TRUE(eventually(2, [] { return defaultSink() == "bw_headphones"; }))
        << "the default did not switch";
    // Where our mix is heard once the default has moved, while the recording still runs.
    const bool mixOnNewOutput = eventually(1.5, [] {
        for (const auto& [from, to] : currentLinks()) {
            if (nodeOf(from).rfind("brightwave-output-", 0) == 0 && nodeOf(to) == "bw_headphones") {
                return true;
            }
        }
        return false;
    });
    const Report report = take.finish(14);
    ASSERT_TRUE(report.exitedCleanly()) << report.describe();

    RecordProperty("outcome", report.failure.value_or("went on"));
    if (report.failure) {
        const std::string reason = "Recording stopped because the audio output changed.";
        EXPECT_EQ(report.failure->rfind(reason, 0), 0u) << *report.failure;
        EXPECT_GT(report.failure->size(), reason.size() + 1) << "no details: " << *report.failure;
    } else if (passthrough) {
        EXPECT_TRUE(mixOnNewOutput) << "the recording went on, but its mix is not heard on the "
                                       "new default output";
    }
    const auto audio = recorded(file, report.failure ? std::nullopt : std::optional(4.0),
                                report.number("frames_written"));
    ASSERT_TRUE(audio);
    const double d = durationOf(*audio);
    if (report.failure) {
        EXPECT_GT(d, 0.8) << "ended before the switch";
        EXPECT_LT(d, 2.5) << "ended long after the switch";
    }
    expectTone(*audio, server->tone440, 0.3, std::min(d - 0.2, 1.2), "before the switch");
}

INSTANTIATE_TEST_SUITE_P(Passthrough, DefaultOutputSwitch, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "On" : "Off"; });

// ---------------------------------------------------------------------------------------------
// f. The audio server dies mid-recording: back a second later, or away for good

struct OutageCase {
    const char* name;
    const char* format;
    bool revived;     // started again 1 s after the crash
    bool secondTake;  // the same process records again afterwards
};

class ServerOutage : public LiveRecording, public ::testing::WithParamInterface<OutageCase> {};

TEST_P(ServerOutage, ARecordingOutlivesARestartAndEndsWithAPlayableFileWhenTheServerStaysAway) {
    const OutageCase& c = GetParam();
    const Tone& tone = server->tone440;
    // A server of its own, known only to this case's children.
    AudioServer own;
    const std::string error = own.call(kAudioServer, "start");
    ASSERT_TRUE(error.empty()) << "a second PipeWire could not be started: " << error;
    const Env& env = own.env();
    Child app = play(tone.file, "bw-app-440", env);
    ASSERT_FALSE(HasFailure());

    const double seconds = c.revived ? 8.0 : 12.0;
    const auto file = path(std::string("outage-") + c.name + "." + c.format);
    std::vector<std::string> arguments{"system"};
    if (c.secondTake) {
        arguments.insert(arguments.begin(), {"--takes", "2"});
    }
    Take take(file, seconds, arguments, false, env);
    ASSERT_TRUE(take.waitForFile(5)) << "the recording never began";
    const auto begun = Clock::now();
    sleepSeconds(2.0);
    const double crashedAt = secondsSince(begun);
    const double crashedAtRun = take.secondsSinceStart();
    ASSERT_TRUE(run({kAudioServer.string(), "crash", own.dir().string()}, 10).succeeded());
    double revivedAt = 0;
    if (c.revived) {
        sleepSeconds(1.0);
        ASSERT_TRUE(run({kAudioServer.string(), "revive", own.dir().string()}, 20).succeeded());
        app = play(tone.file, "bw-app-440-again", env);  // the old player died with its server
        revivedAt = secondsSince(begun);
    }

    const Report report = take.finish((c.secondTake ? 2 : 1) * seconds + 10);
    RecordProperty("report", report.json);
    ASSERT_TRUE(report.exitedCleanly()) << report.describe();
    const auto audio = recorded(file, std::nullopt);
    ASSERT_TRUE(audio) << report.json;
    const double d = durationOf(*audio);
    expectTone(*audio, tone, 0.3, crashedAt - 0.3, "before the crash");
    if (c.revived) {
        EXPECT_FALSE(report.failure) << report.json;
        EXPECT_NEAR(d, seconds, 0.5) << "the outage is a gap in time, not a cut";
        expectTone(*audio, tone, std::max(4.5, revivedAt + 0.5), d - 0.2,
                   "after the server came back");
    } else {
        ASSERT_TRUE(report.failure) << "the recording outlived a server gone for good";
        EXPECT_NEAR(report.elapsed - crashedAtRun, 5.0, 1.5) << "ended too early or too late";
        EXPECT_LT(d, seconds - 3.0);
    }
    if (c.secondTake) {
        const auto again = decode(fs::path(file).replace_filename(file.stem().string() + "-2" +
                                                                  file.extension().string()));
        ASSERT_TRUE(again) << "no second recording after the restart";
        EXPECT_NEAR(durationOf(*again), seconds, 0.5);
        expectTone(*again, tone, 0.3, durationOf(*again) - 0.2, "the second recording");
    }
}

INSTANTIATE_TEST_SUITE_P(Outages, ServerOutage,
                         ::testing::Values(OutageCase{"revived_m4a", "m4a", true, false},
                                           OutageCase{"revived_wav", "wav", true, true},
                                           OutageCase{"away_wav", "wav", false, false}),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
