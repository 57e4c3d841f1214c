// Real recordings through record-live on a private PipeWire server: test "applications" are
// pw-play processes playing generated tones, and every file is checked twice, with ffprobe (what
// it is) and with an independent decoder (what it holds).

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
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

// A generated file that a test application plays, and the level of its tone.
struct Tone {
    fs::path file;
    double frequency = 0;
    double levelDb = 0;  // of each channel, as the decoder reads the file itself
};

// ---------------------------------------------------------------------------------------------
// The private server shared by every case, and the files the test applications play

class LiveServer : public ::testing::Environment {
public:
    void SetUp() override {
        char pattern[] = "/tmp/bw-e2e.XXXXXX";
        if (mkdtemp(pattern) == nullptr) {
            error_ = "no temporary folder";
            ADD_FAILURE() << error_;
            return;
        }
        work_ = pattern;
        error_ = server_.start(fs::path(BW_SOURCE_DIR) / "scripts" / "audio-server");
        if (!error_.empty()) {
            // Not fatal here, so that every case runs and fails on this message rather than being
            // skipped.
            error_ = "PipeWire could not be started for the live recording tests: " + error_;
            ADD_FAILURE() << error_;
            return;
        }
        // Children (pw-play, record-live, pw-link, ...) inherit the private server.
        for (const auto& [name, value] : server_.env()) {
            setenv(name.c_str(), value.c_str(), 1);
        }
        // Sines of 1/8 full scale, doubled: a quarter of full scale, stereo without the upmix's
        // -3 dB; long enough for every case.
        tone440_ = makeTone(440, 2.0, "pan=stereo|c0=c0|c1=c0", 2);
        tone660_ = makeTone(660, 2.0, "pan=stereo|c0=c0|c1=c0", 2);
        mic880_ = makeTone(880, 2.0, "anull", 1);
        // Clicks twice a second, four samples at half of full scale: alone on the left, over a
        // 660 Hz tone on the right.
        clicks660_ = makeTone(660, 1.0, "anull", 2,
                              "aevalsrc=exprs='0.5*lt(mod(n,24000),4)|0.25*sin(2*PI*660*t)+0.5*"
                              "lt(mod(n,24000),4)':s=48000:d=30");
        noise_ = work_ / "noise.wav";
        if (!run({"ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
                  "anoisesrc=color=pink:amplitude=0.25:duration=20:sample_rate=48000", "-ac", "2",
                  "-c:a", "pcm_s16le", noise_.string()})
                 .succeeded()) {
            error_ = "ffmpeg could not generate the test noise";
        }
        if (!error_.empty()) {
            ADD_FAILURE() << error_;
        }
    }

    void TearDown() override {
        server_.stop();
        if (!work_.empty() && std::getenv("BW_E2E_KEEP") == nullptr) {
            std::error_code ignored;
            fs::remove_all(work_, ignored);
        }
    }

    const std::string& error() const { return error_; }
    const fs::path& work() const { return work_; }
    const Tone& tone440() const { return tone440_; }
    const Tone& tone660() const { return tone660_; }
    const Tone& mic880() const { return mic880_; }
    const Tone& clicks660() const { return clicks660_; }
    const fs::path& noise() const { return noise_; }

private:
    // `source`: an FFmpeg source of its own instead of the sine; its tone is read on the last
    // channel.
    Tone makeTone(double frequency, double gain, const std::string& layout, int channels,
                  std::string source = {}) {
        Tone tone;
        tone.frequency = frequency;
        tone.file =
            work_ / ((source.empty() ? "tone" : "other") + std::to_string(int(frequency)) + ".wav");
        if (source.empty()) {
            source = "sine=frequency=" + std::to_string(int(frequency)) +
                     ":sample_rate=48000:duration=30";
        }
        const std::string filter = "volume=" + std::to_string(gain) + "," + layout;
        if (!run({"ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", source, "-af", filter, "-ac",
                  std::to_string(channels), "-c:a", "pcm_s16le", tone.file.string()})
                 .succeeded()) {
            error_ = "ffmpeg could not generate " + tone.file.string();
            return tone;
        }
        const auto decoded = decodeAudioFile(tone.file);
        if (!decoded || decoded->frames() < std::size_t(2 * kRate)) {
            error_ = "the generated " + tone.file.string() + " does not decode";
            return tone;
        }
        tone.levelDb = toneLevelDb(
            std::span(decoded->channelsData.back()).subspan(std::size_t(kRate), std::size_t(kRate)),
            frequency, kRate);
        return tone;
    }

    AudioServer server_;
    fs::path work_;
    std::string error_;
    Tone tone440_;
    Tone tone660_;
    Tone mic880_;
    Tone clicks660_;
    fs::path noise_;
};

auto* const server = static_cast<LiveServer*>(::testing::AddGlobalTestEnvironment(new LiveServer));

// ---------------------------------------------------------------------------------------------
// Running record-live

struct Report {
    bool finished = false;  // ended by itself before the deadline
    int status = -1;
    double elapsed = 0;  // seconds from start to end
    std::string json;
    long long framesWritten = -1;
    long long droppedBuffers = -1;
    std::optional<std::string> failure;  // the failure that ended the recording, if any
    std::string sourceFailures;
    std::string sourcesWithoutAudio;
};

class Take {
public:
    Take(const fs::path& file, const std::string& format, double seconds,
         const std::vector<std::string>& sources, bool passthrough = false, const Env& env = {})
        : file_(file), output_(fs::path(file).replace_extension(".json")) {
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

    bool valid() const { return process_.valid(); }
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
        auto number = [&](const char* key) {
            const auto value = jsonField(report.json, key);
            return value ? std::atoll(value->c_str()) : -1;
        };
        report.framesWritten = number("frames_written");
        report.droppedBuffers = number("dropped_buffers");
        if (const auto failure = jsonField(report.json, "failure"); failure && *failure != "null") {
            report.failure = *failure;
        }
        report.sourceFailures = jsonField(report.json, "source_failures").value_or("");
        report.sourcesWithoutAudio = jsonField(report.json, "sources_without_audio").value_or("");
        return report;
    }

private:
    fs::path file_;
    fs::path output_;
    Clock::time_point started_;
    Child process_;
};

bool exitedWith(int status, std::initializer_list<int> codes) {
    if (!WIFEXITED(status)) {
        return false;
    }
    for (int code : codes) {
        if (WEXITSTATUS(status) == code) {
            return true;
        }
    }
    return false;
}

std::string describeStatus(int status) {
    if (WIFSIGNALED(status)) {
        return "killed by signal " + std::to_string(WTERMSIG(status));
    }
    return "exit status " + std::to_string(WEXITSTATUS(status));
}

// ---------------------------------------------------------------------------------------------
// Reading what was recorded

struct FormatCase {
    const char* format;
    const char* codec;  // what ffprobe must call the stream
};

constexpr std::array<FormatCase, 3> kFormats = {{
    {"m4a", "aac"},
    {"wav", "pcm_s16le"},
    {"aiff", "pcm_s16be"},
}};

const FormatCase& formatCase(const std::string& format) {
    for (const auto& entry : kFormats) {
        if (entry.format == format) {
            return entry;
        }
    }
    return kFormats[0];
}

// The tone's level in [from, to) seconds of one channel; `to` past the end reads to the end.
double levelIn(const DecodedAudio& audio, std::size_t channel, double frequency, double from,
               double to) {
    const auto& samples = audio.channelsData.at(channel);
    const auto begin = std::min(samples.size(), std::size_t(std::max(0.0, from) * kRate));
    const auto end = std::min(samples.size(), std::size_t(std::max(0.0, to) * kRate));
    return toneLevelDb(std::span(samples).subspan(begin, end > begin ? end - begin : 0), frequency,
                       kRate);
}

double rmsIn(const DecodedAudio& audio, std::size_t channel, double from, double to) {
    const auto& samples = audio.channelsData.at(channel);
    const auto begin = std::min(samples.size(), std::size_t(std::max(0.0, from) * kRate));
    const auto end = std::min(samples.size(), std::size_t(std::max(0.0, to) * kRate));
    return rmsDb(std::span(samples).subspan(begin, end > begin ? end - begin : 0));
}

double durationOf(const DecodedAudio& audio) {
    return double(audio.frames()) / kRate;
}

// ffprobe's view of a finished recording: the format's codec, 48 kHz stereo, the length, and for
// AAC the bit rate FFmpeg's own encoder reaches at 256 kb/s on the same audio.
void expectWellFormed(const fs::path& file, const std::string& format,
                      std::optional<double> seconds, double tolerance = 0.25) {
    SCOPED_TRACE(file.string());
    const Probe p = probe(file);
    ASSERT_TRUE(p.ok) << "ffprobe can't read the file: " << p.text;
    EXPECT_EQ(p.codecName, formatCase(format).codec);
    EXPECT_EQ(p.sampleRate, 48000);
    EXPECT_EQ(p.channels, 2);
    if (seconds) {
        EXPECT_NEAR(p.duration, *seconds, tolerance);
    }
    if (format == "m4a" && p.duration > 0.5) {
        const auto reference = fs::path(file).replace_extension(".reference.m4a");
        ASSERT_TRUE(run({"ffmpeg", "-v", "error", "-y", "-i", file.string(), "-c:a", "aac", "-b:a",
                         "256k", reference.string()})
                        .succeeded());
        const Probe r = probe(reference);
        ASSERT_GT(r.bitRate, 0);
        EXPECT_NEAR(p.bitRate / r.bitRate, 1.0, 0.1)
            << "ours " << p.bitRate << " b/s, FFmpeg at 256k " << r.bitRate << " b/s";
    }
}

// The frames the engine says it wrote are the ones in the file.
void expectFramesMatch(const Report& report, const DecodedAudio& audio) {
    EXPECT_NEAR(double(report.framesWritten) / kRate, durationOf(audio), 0.05) << report.json;
}

// ---------------------------------------------------------------------------------------------
// The fixture: test applications and the graph's state

class LiveRecording : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server->error().empty()) << server->error();
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        std::string name = std::string(info->test_suite_name()) + "." + info->name();
        std::replace(name.begin(), name.end(), '/', '_');
        folder_ = server->work() / name;
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

    std::optional<DecodedAudio> decode(const fs::path& file) {
        auto audio = decodeAudioFile(file);
        EXPECT_TRUE(audio) << "can't decode " << file;
        if (audio) {
            EXPECT_EQ(audio->channels, 2);
            EXPECT_EQ(audio->channelsData.size(), 2u);
        }
        return audio;
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
// a. One application among two, and everything, in each format

class RecordsEachFormat : public LiveRecording, public ::testing::WithParamInterface<FormatCase> {};

TEST_P(RecordsEachFormat, OneApplicationHoldsOnlyItsOwnToneAndSystemHoldsBoth) {
    const auto& [format, codec] = GetParam();
    const Tone& first = server->tone440();
    const Tone& second = server->tone660();
    Child a = play(first.file, "bw-app-440");
    Child b = play(second.file, "bw-app-660");
    ASSERT_FALSE(HasFailure());

    struct Case {
        std::string source;
        bool hasFirst;
        bool hasSecond;
    };
    const std::vector<Case> cases = {
        {"app:pid:" + std::to_string(a.pid()), true, false},
        {"system", true, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.source + " as " + format);
        const auto file = path(c.source.substr(0, c.source.find(':')) + "." + format);
        Take take(file, format, 2, {c.source});
        ASSERT_TRUE(take.valid());
        const Report report = take.finish(12);
        ASSERT_TRUE(report.finished) << "record-live did not end";
        ASSERT_TRUE(exitedWith(report.status, {0})) << describeStatus(report.status);
        EXPECT_FALSE(report.failure) << report.json;
        EXPECT_EQ(report.sourceFailures, "{}") << report.json;
        EXPECT_EQ(report.droppedBuffers, 0) << report.json;
        EXPECT_EQ(report.sourcesWithoutAudio, "[]") << report.json;
        expectWellFormed(file, format, 2.0);
        const auto audio = decode(file);
        ASSERT_TRUE(audio);
        expectFramesMatch(report, *audio);
        EXPECT_NEAR(probe(file).duration, durationOf(*audio), 0.05)
            << "players show another length than the audio's";
        for (std::size_t ch = 0; ch < 2; ++ch) {
            SCOPED_TRACE("channel " + std::to_string(ch));
            const double end = durationOf(*audio) - 0.2;
            const double at440 = levelIn(*audio, ch, first.frequency, 0.3, end);
            const double at660 = levelIn(*audio, ch, second.frequency, 0.3, end);
            if (c.hasFirst) {
                EXPECT_NEAR(at440, first.levelDb, kLevelToleranceDb);
            } else {
                EXPECT_LT(at440, first.levelDb - 50);
            }
            if (c.hasSecond) {
                EXPECT_NEAR(at660, second.levelDb, kLevelToleranceDb);
            } else {
                EXPECT_LT(at660, second.levelDb - 50);
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, RecordsEachFormat, ::testing::ValuesIn(kFormats),
                         [](const auto& info) { return std::string(info.param.format); });

// Broadband sound needs every bit of AAC's budget, so the file runs at its nominal rate.
TEST_F(LiveRecording, AacOfBroadbandSoundRunsAtTheNominalBitRate) {
    Child app = play(server->noise(), "bw-app-noise");
    ASSERT_FALSE(HasFailure());
    const auto file = path("noise.m4a");
    Take take(file, "m4a", 3, {"app:pid:" + std::to_string(app.pid())});
    const Report report = take.finish(13);
    ASSERT_TRUE(report.finished && exitedWith(report.status, {0})) << report.json;
    expectWellFormed(file, "m4a", 3.0);
    const Probe p = probe(file);
    EXPECT_NEAR(p.bitRate, 256000, 256000 * 0.12);
}

// ---------------------------------------------------------------------------------------------
// b. A helper process that starts playing mid-recording counts for its application

// An application of the desktop: its program is a copy of the launcher under a name of its own,
// so that its desktop entry (bundle ID `bundleID`) names it and nothing else.
fs::path installApplication(const std::string& bundleID, const std::string& name) {
    const fs::path data = std::getenv("XDG_DATA_HOME");
    const fs::path program = data / "bin" / (bundleID + "-" + std::to_string(getpid()));
    fs::create_directories(program.parent_path());
    fs::copy_file(BW_TEST_PARENT, program, fs::copy_options::overwrite_existing);
    fs::create_directories(data / "applications");
    std::ofstream entry(data / "applications" / (bundleID + ".desktop"));
    entry << "[Desktop Entry]\nType=Application\nName=" << name << "\nExec=" << program.string()
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
    const Tone& tone = server->tone440();
    const std::string bundleID = "org.example.LateHelper";
    const fs::path program = installApplication(bundleID, "Late Helper");
    constexpr double kDelay = 1.5;
    const auto spawned = Clock::now();
    Child parent = launch(program, {"--delay-ms", std::to_string(int(kDelay * 1000)),
                                    tone.file.string(), "-P", "node.name=bw-late-helper"});
    ASSERT_FALSE(HasFailure());

    const auto file = path("late-helper.wav");
    Take take(file, "wav", 4, {"app:" + bundleID});
    ASSERT_TRUE(take.waitForFile(5)) << "the recording never began";
    const double startOffset = secondsSince(spawned);
    const Report report = take.finish(14);
    ASSERT_TRUE(report.finished) << "record-live did not end";
    ASSERT_TRUE(exitedWith(report.status, {0})) << describeStatus(report.status) << report.json;
    EXPECT_FALSE(report.failure) << report.json;
    EXPECT_EQ(report.sourceFailures, "{}") << report.json;
    expectWellFormed(file, "wav", 4.0);
    const auto audio = decode(file);
    ASSERT_TRUE(audio);

    // The first 50 ms window where the tone is clearly there.
    constexpr double kWindow = 0.05;
    std::optional<double> onset;
    for (double t = 0; t + kWindow <= durationOf(*audio); t += kWindow) {
        if (levelIn(*audio, 0, tone.frequency, t, t + kWindow) > tone.levelDb - 6) {
            onset = t;
            break;
        }
    }
    ASSERT_TRUE(onset) << "the helper's tone never reached the file";
    // Sound starts 1.5 s after the parent, less the time until record-live had begun.
    const double expected = kDelay - startOffset;
    EXPECT_GT(*onset, expected - 0.4) << "tone before the helper played";
    EXPECT_LT(*onset, expected + 0.6) << "the helper was picked up late";
    for (std::size_t ch = 0; ch < 2; ++ch) {
        SCOPED_TRACE("channel " + std::to_string(ch));
        EXPECT_LT(rmsIn(*audio, ch, 0.0, *onset - 0.1), tone.levelDb - 50) << "not silent before";
        EXPECT_NEAR(levelIn(*audio, ch, tone.frequency, *onset + 0.3, durationOf(*audio) - 0.1),
                    tone.levelDb, kLevelToleranceDb);
    }
}

TEST_F(LiveRecording, AnApplicationRelaunchedMidRecordingIsFollowed) {
    const Tone& tone = server->tone440();
    const std::string bundleID = "org.example.Relaunched";
    const fs::path program = installApplication(bundleID, "Relaunched Player");
    Child first = launch(program, {tone.file.string(), "-P", "node.name=bw-relaunch-1"});
    ASSERT_FALSE(HasFailure());
    const auto file = path("relaunched.wav");
    Take take(file, "wav", 6, {"app:" + bundleID});
    ASSERT_TRUE(take.waitForFile(5)) << "the recording never began";
    const auto begun = Clock::now();
    sleepSeconds(2.0);
    first.stop();
    const double quitAt = secondsSince(begun);
    sleepSeconds(0.5);
    Child second = launch(program, {tone.file.string(), "-P", "node.name=bw-relaunch-2"});
    ASSERT_FALSE(HasFailure());
    const double relaunchedAt = secondsSince(begun);
    const Report report = take.finish(14);
    ASSERT_TRUE(report.finished) << "record-live did not end";
    EXPECT_FALSE(report.failure) << report.json;
    const auto audio = decode(file);
    ASSERT_TRUE(audio);
    const double d = durationOf(*audio);
    ASSERT_GT(d, relaunchedAt + 1.5);
    for (std::size_t ch = 0; ch < 2; ++ch) {
        SCOPED_TRACE("channel " + std::to_string(ch));
        EXPECT_NEAR(levelIn(*audio, ch, tone.frequency, 0.3, quitAt - 0.3), tone.levelDb,
                    kLevelToleranceDb)
            << "before the relaunch";
        EXPECT_NEAR(levelIn(*audio, ch, tone.frequency, relaunchedAt + 1.0, d - 0.2), tone.levelDb,
                    kLevelToleranceDb)
            << "after the relaunch";
    }
}

// ---------------------------------------------------------------------------------------------
// c. A microphone and two applications, each at its own volume, each also in a file of its own

// How far `b` lags `a`, in frames within ±`maxLag`, where their first differences (the clicks,
// hardly the tones) correlate best over `frames` frames from `from`.
long clickLag(const std::vector<float>& a, const std::vector<float>& b, std::size_t from,
              std::size_t frames, long maxLag) {
    auto edges = [](const std::vector<float>& x) {
        std::vector<float> d(x.size(), 0.0f);
        for (std::size_t i = 1; i < x.size(); ++i) {
            d[i] = x[i] - x[i - 1];
        }
        return d;
    };
    const auto da = edges(a);
    const auto db = edges(b);
    double best = -1;
    long bestLag = 0;
    for (long lag = -maxLag; lag <= maxLag; ++lag) {
        double sum = 0;
        for (std::size_t i = from; i < from + frames && i < da.size(); ++i) {
            const long j = long(i) + lag;
            if (j >= 0 && std::size_t(j) < db.size()) {
                sum += double(da[i]) * db[std::size_t(j)];
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
    const Tone& voice = server->mic880();
    const Tone& music = server->tone440();
    const Tone& clicks = server->clicks660();
    // The virtual microphone sounds what is linked into its input; the feed goes nowhere else.
    Child feed =
        Child::spawn({"pw-play", "--target=0", "-P", "node.name=bw-mic-feed", voice.file.string()});
    ASSERT_TRUE(feed.valid());
    ASSERT_TRUE(eventually(5, [] {
        return run({"pw-link", "-o"}, 10).out.find("bw-mic-feed:") != std::string::npos;
    }));
    const auto linked =
        run({"pw-link", "bw-mic-feed:output_MONO", std::string(kMicrophone) + ":input_MONO"});
    ASSERT_TRUE(linked.succeeded()) << "pw-link failed: " << linked.out;
    ASSERT_EQ(nodesFedBy(currentLinks(), "bw-mic-feed"), std::vector<std::string>{kMicrophone});
    Child app = play(music.file, "bw-app-440");
    Child clicker = play(clicks.file, "bw-app-clicks");
    ASSERT_FALSE(HasFailure());
    // The clicker's left side, clicks only, sounds in the microphone too: one click, two sources.
    ASSERT_TRUE(
        run({"pw-link", "bw-app-clicks:output_FL", std::string(kMicrophone) + ":input_MONO"})
            .succeeded());

    struct Part {
        std::string id;
        const Tone* tone;
        std::vector<std::size_t> channels;  // where its tone is
        double volume;
        std::string fileName;  // of its own file
    };
    const std::vector<Part> parts = {
        {std::string("mic:") + kMicrophone,
         &voice,
         {0, 1},
         0.8,
         "mic-and-apps – bw_microphone.wav"},
        {"app:pid:" + std::to_string(app.pid()), &music, {0, 1}, 0.5, "mic-and-apps – pw-play.wav"},
        {"app:pid:" + std::to_string(clicker.pid()),
         &clicks,
         {1},
         1.25,
         "mic-and-apps – pw-play (2).wav"},
    };
    std::vector<std::string> arguments{"--source-files"};
    for (const auto& part : parts) {
        arguments.push_back(part.id + "@" + std::to_string(part.volume));
    }
    const auto file = path("mic-and-apps.wav");
    Take take(file, "wav", 3, arguments);
    const Report report = take.finish(13);
    ASSERT_TRUE(report.finished && exitedWith(report.status, {0}))
        << describeStatus(report.status) << report.json;
    EXPECT_FALSE(report.failure) << report.json;
    EXPECT_EQ(report.sourceFailures, "{}") << "a source failed: " << report.json;
    EXPECT_EQ(report.droppedBuffers, 0) << report.json;
    EXPECT_EQ(jsonField(report.json, "source_file_failures"), "[]") << report.json;
    expectWellFormed(file, "wav", 3.0);
    const auto mix = decode(file);
    ASSERT_TRUE(mix);
    const double end = durationOf(*mix) - 0.2;
    auto expectOnly = [&](const DecodedAudio& audio, const Part* only, double toleranceDb) {
        for (const auto& part : parts) {
            const double level = part.tone->levelDb + 20 * std::log10(part.volume);
            for (std::size_t ch = 0; ch < 2; ++ch) {
                SCOPED_TRACE(part.id + ", channel " + std::to_string(ch));
                const double heard = levelIn(audio, ch, part.tone->frequency, 0.3, end);
                const bool sounds = std::count(part.channels.begin(), part.channels.end(), ch);
                if (only != nullptr && only != &part) {
                    EXPECT_LT(heard, level - 50) << "another source in this one's file";
                } else if (sounds) {
                    EXPECT_NEAR(heard, level, toleranceDb);
                }
            }
        }
    };
    expectOnly(*mix, nullptr, kLevelToleranceDb);

    // Each source's own file: only that source, at its fader's level, as long as the mix.
    const auto files = jsonField(report.json, "source_files").value_or("");
    std::vector<DecodedAudio> owns;
    for (const auto& part : parts) {
        SCOPED_TRACE(part.id);
        const auto own = jsonField(files, part.id);
        ASSERT_TRUE(own) << report.json;
        EXPECT_EQ(fs::path(*own).filename(), part.fileName);
        expectWellFormed(*own, "wav", std::nullopt);
        auto audio = decode(*own);
        ASSERT_TRUE(audio);
        EXPECT_NEAR(double(audio->frames()), double(mix->frames()), 4096) << "one tap buffer";
        expectOnly(*audio, &part, 0.5);
        owns.push_back(std::move(*audio));
    }
    // The click both sources carry sits on the same frame in their files and in the mix.
    const auto& micOwn = owns[0].channelsData[0];
    const auto& clicksOwn = owns[2].channelsData[0];
    const std::size_t from = std::size_t(0.5 * kRate);
    const std::size_t frames = std::size_t(1.0 * kRate);
    const long maxLag = long(0.05 * kRate);
    EXPECT_LE(std::abs(clickLag(clicksOwn, micOwn, from, frames, maxLag)), 48) << "between files";
    EXPECT_LE(std::abs(clickLag(clicksOwn, mix->channelsData[0], from, frames, maxLag)), 48);
    EXPECT_LE(std::abs(clickLag(micOwn, mix->channelsData[0], from, frames, maxLag)), 48);
}

// ---------------------------------------------------------------------------------------------
// d. Passthrough: recorded sound is heard once, through our mix, and the graph is put back

TEST_F(LiveRecording, PassthroughPlaysTheMixInsteadOfTheApplication) {
    const Tone& tone = server->tone440();
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
    Take take(file, "wav", 4, {"app:pid:" + std::to_string(app.pid())}, true);
    const double recordingStart = secondsSince(monitorStart);
    const bool moved = eventually(3, [&] {
        const auto fed = nodesFedBy(currentLinks(), node);
        return std::any_of(fed.begin(), fed.end(),
                           [](const auto& n) { return n.rfind("brightwave-silence-", 0) == 0; });
    });
    const auto links = currentLinks();
    const auto fed = nodesFedBy(links, node);
    const std::string metadata = metadataText();
    EXPECT_TRUE(moved) << "the application was never moved to a silent sink; it feeds "
                       << describe(fed);
    EXPECT_EQ(std::find(fed.begin(), fed.end(), kSpeakers), fed.end())
        << "the application still plays into the speakers directly: " << describe(fed);
    EXPECT_NE(metadata.find("'target.object'"), std::string::npos) << metadata;

    const Report report = take.finish(14);
    const double recordingEnd = secondsSince(monitorStart);
    ASSERT_TRUE(report.finished && exitedWith(report.status, {0}))
        << describeStatus(report.status) << report.json;
    EXPECT_FALSE(report.failure) << report.json;
    expectRestored(node);
    sleepSeconds(0.6);
    monitor.stop();  // pw-record closes its file on SIGTERM

    expectWellFormed(file, "wav", 4.0);
    const auto recorded = decode(file);
    const auto heard = decode(monitorFile);
    ASSERT_TRUE(recorded && heard);
    struct Window {
        const char* what;
        double from;
        double to;
    };
    // The middle of the recording is our mix; after it, the application again on its own.
    const std::vector<Window> windows = {
        {"during the recording", recordingStart + 1.0, recordingEnd - 1.0},
        {"after the recording", recordingEnd + 0.3, durationOf(*heard) - 0.1},
    };
    for (const auto& w : windows) {
        ASSERT_GT(w.to - w.from, 0.2) << w.what << ": the monitor is too short";
        for (std::size_t ch = 0; ch < 2; ++ch) {
            SCOPED_TRACE(std::string(w.what) + ", channel " + std::to_string(ch));
            EXPECT_NEAR(levelIn(*heard, ch, tone.frequency, w.from, w.to), tone.levelDb,
                        kLevelToleranceDb)
                << "the speakers should hear the tone exactly once";
        }
    }
    for (std::size_t ch = 0; ch < 2; ++ch) {
        EXPECT_NEAR(levelIn(*recorded, ch, tone.frequency, 0.3, durationOf(*recorded) - 0.2),
                    tone.levelDb, kLevelToleranceDb);
    }
}

TEST_F(LiveRecording, PassthroughOfSystemAudioDoesNotRecordItself) {
    const Tone& tone = server->tone440();
    const std::string node = "bw-app-440";
    Child app = play(tone.file, node);
    ASSERT_FALSE(HasFailure());
    const auto file = path("passthrough-system.wav");
    Take take(file, "wav", 3, {"system"}, true);
    const Report report = take.finish(13);
    ASSERT_TRUE(report.finished && exitedWith(report.status, {0}))
        << describeStatus(report.status) << report.json;
    EXPECT_FALSE(report.failure) << report.json;
    expectRestored(node);
    expectWellFormed(file, "wav", 3.0);
    const auto audio = decode(file);
    ASSERT_TRUE(audio);
    const double d = durationOf(*audio);
    ASSERT_GT(d, 2.5);
    for (std::size_t ch = 0; ch < 2; ++ch) {
        SCOPED_TRACE("channel " + std::to_string(ch));
        // Our own playback fed back in would grow the level second by second.
        EXPECT_NEAR(rmsIn(*audio, ch, 0.2, 1.2), rmsIn(*audio, ch, d - 1.1, d - 0.1), 1.0);
        // A copy of the application heard twice would read 6 dB up.
        EXPECT_NEAR(levelIn(*audio, ch, tone.frequency, 0.2, d - 0.1), tone.levelDb,
                    kLevelToleranceDb);
    }
}

// ---------------------------------------------------------------------------------------------
// d2. The recorder itself dies mid-recording (before any test moves the default output, which
// the session manager would remember for the players that come after)

class RecorderKilled : public LiveRecording, public ::testing::WithParamInterface<FormatCase> {};

TEST_P(RecorderKilled, TheFileKeepsItsAudioAndTellsItsLength) {
    const auto& [format, codec] = GetParam();
    const Tone& tone = server->tone440();
    Child app = play(tone.file, "bw-app-killed", {});
    ASSERT_FALSE(HasFailure());
    const auto file = path(std::string("crashed.") + format);
    Take take(file, format, 20, {"app:pid:" + std::to_string(app.pid())});
    ASSERT_TRUE(take.valid());
    ASSERT_TRUE(take.waitForFile(5)) << "the recording never began";
    sleepSeconds(5.0);
    take.kill();
    take.finish(5);

    // A strict player believes a WAV or AIFF header: it must tell about what is there. An M4A
    // tells its length by its fragments.
    if (std::string(format) != "m4a") {
        const auto claimed = pcmHeaderSeconds(file);
        ASSERT_TRUE(claimed.has_value()) << "the header claims more than the file holds";
        EXPECT_NEAR(*claimed, 5.0, 2.0);
    }
    const auto audio = decode(file);
    ASSERT_TRUE(audio);
    EXPECT_GE(durationOf(*audio), 3.5);
    EXPECT_NEAR(probe(file).duration, durationOf(*audio), 0.05) << "the length shown isn't heard";
    EXPECT_NEAR(levelIn(*audio, 0, tone.frequency, 0.5, 3.0), tone.levelDb, kLevelToleranceDb);
}

INSTANTIATE_TEST_SUITE_P(Formats, RecorderKilled, ::testing::ValuesIn(kFormats),
                         [](const auto& info) { return std::string(info.param.format); });

// ---------------------------------------------------------------------------------------------
// e. The default output changes mid-recording

// Makes a second sink and puts the default back on the speakers afterwards.
class SecondSink {
public:
    SecondSink() {
        run({"pw-cli", "create-node", "adapter",
             "{ factory.name=support.null-audio-sink node.name=bw_headphones "
             "media.class=Audio/Sink audio.position=[FL FR] object.linger=true }"});
        eventually(3, [&] { return (id_ = idOf("bw_headphones")) != 0; });
        speakers_ = idOf(kSpeakers);
    }
    ~SecondSink() {
        if (speakers_ != 0) {
            run({"wpctl", "set-default", std::to_string(speakers_)});
            eventually(3, [] { return defaultSink() == kSpeakers; });
        }
        if (id_ != 0) {
            run({"pw-cli", "destroy", std::to_string(id_)});
        }
    }
    unsigned id() const { return id_; }

    static unsigned idOf(const std::string& name) {
        const auto out = run({"pw-cli", "info", name}, 10).out;
        const auto at = out.find("id: ");
        return at == std::string::npos ? 0 : unsigned(std::atoi(out.c_str() + at + 4));
    }
    static std::string defaultSink() {
        const auto out = run({"pw-metadata", "0", "default.audio.sink"}, 10).out;
        const auto at = out.find("{\"name\":\"");
        return at == std::string::npos ? "" : out.substr(at + 9, out.find('"', at + 9) - at - 9);
    }

private:
    unsigned id_ = 0;
    unsigned speakers_ = 0;
};

class DefaultOutputSwitch : public LiveRecording, public ::testing::WithParamInterface<bool> {};

TEST_P(DefaultOutputSwitch, RecordingGoesOnOrEndsWithAPlayableFile) {
    const bool passthrough = GetParam();
    const Tone& tone = server->tone440();
    SecondSink headphones;
    ASSERT_NE(headphones.id(), 0u) << "could not make a second sink";
    Child app = play(tone.file, "bw-app-440");
    ASSERT_FALSE(HasFailure());

    const auto file = path("switch.m4a");
    Take take(file, "m4a", 4, {"app:pid:" + std::to_string(app.pid())}, passthrough);
    sleepSeconds(1.5);
    ASSERT_TRUE(run({"wpctl", "set-default", std::to_string(headphones.id())}).succeeded());
    EXPECT_TRUE(eventually(2, [] { return SecondSink::defaultSink() == "bw_headphones"; }))
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
    ASSERT_TRUE(report.finished) << "record-live did not end";
    ASSERT_TRUE(exitedWith(report.status, {0})) << describeStatus(report.status) << report.json;

    RecordProperty("outcome", report.failure.value_or("went on"));
    std::optional<double> expected;
    if (report.failure) {
        const std::string reason = "Recording stopped because the audio output changed.";
        EXPECT_EQ(report.failure->rfind(reason, 0), 0u) << *report.failure;
        EXPECT_GT(report.failure->size(), reason.size() + 1) << "no details: " << *report.failure;
    } else {
        expected = 4.0;
        if (passthrough) {
            EXPECT_TRUE(mixOnNewOutput) << "the recording went on, but its mix is not heard on "
                                           "the new default output";
        }
    }
    expectWellFormed(file, "m4a", expected);
    const auto audio = decode(file);
    ASSERT_TRUE(audio);
    expectFramesMatch(report, *audio);
    const double d = durationOf(*audio);
    if (report.failure) {
        EXPECT_GT(d, 0.8) << "ended before the switch";
        EXPECT_LT(d, 2.5) << "ended long after the switch";
    }
    for (std::size_t ch = 0; ch < 2; ++ch) {
        EXPECT_NEAR(levelIn(*audio, ch, tone.frequency, 0.3, std::min(d - 0.2, 1.2)), tone.levelDb,
                    kLevelToleranceDb);
    }
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
    const Tone& tone = server->tone440();
    // A server of its own, known only to this case's children.
    AudioServer own;
    const fs::path script = fs::path(BW_SOURCE_DIR) / "scripts" / "audio-server";
    const std::string error = own.start(script);
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
    Take take(file, c.format, seconds, arguments, false, env);
    ASSERT_TRUE(take.valid());
    ASSERT_TRUE(take.waitForFile(5)) << "the recording never began";
    const auto begun = Clock::now();
    sleepSeconds(2.0);
    const double crashedAt = secondsSince(begun);
    const double crashedAtRun = take.secondsSinceStart();
    ASSERT_TRUE(run({script.string(), "crash", own.dir().string()}, 10).succeeded());
    double revivedAt = 0;
    if (c.revived) {
        sleepSeconds(1.0);
        ASSERT_TRUE(run({script.string(), "revive", own.dir().string()}, 20).succeeded());
        app = play(tone.file, "bw-app-440-again", env);  // the old player died with its server
        revivedAt = secondsSince(begun);
    }

    const Report report = take.finish((c.secondTake ? 2 : 1) * seconds + 10);
    ASSERT_TRUE(report.finished) << "record-live did not end";
    RecordProperty("report", report.json);
    EXPECT_TRUE(exitedWith(report.status, {0})) << describeStatus(report.status);
    const Probe p = probe(file);
    ASSERT_TRUE(p.ok) << "no playable file: " << p.text << report.json;
    const auto audio = decode(file);
    ASSERT_TRUE(audio);
    const double d = durationOf(*audio);
    double heardAgainFrom = d;
    if (c.revived) {
        EXPECT_FALSE(report.failure) << report.json;
        EXPECT_NEAR(d, seconds, 0.5) << "the outage is a gap in time, not a cut";
        heardAgainFrom = std::max(4.5, revivedAt + 0.5);
    } else {
        ASSERT_TRUE(report.failure) << "the recording outlived a server gone for good";
        EXPECT_NEAR(report.elapsed - crashedAtRun, 5.0, 1.5) << "ended too early or too late";
        EXPECT_LT(d, seconds - 3.0);
    }
    for (std::size_t ch = 0; ch < 2; ++ch) {
        SCOPED_TRACE("channel " + std::to_string(ch));
        EXPECT_NEAR(levelIn(*audio, ch, tone.frequency, 0.3, crashedAt - 0.3), tone.levelDb,
                    kLevelToleranceDb)
            << "before the crash";
        if (c.revived) {
            EXPECT_NEAR(levelIn(*audio, ch, tone.frequency, heardAgainFrom, d - 0.2), tone.levelDb,
                        kLevelToleranceDb)
                << "after the server came back";
        }
    }
    if (c.secondTake) {
        const auto again = decode(fs::path(file).replace_filename(file.stem().string() + "-2" +
                                                                  file.extension().string()));
        ASSERT_TRUE(again) << "no second recording after the restart";
        EXPECT_NEAR(durationOf(*again), seconds, 0.5);
        EXPECT_NEAR(levelIn(*again, 0, tone.frequency, 0.3, durationOf(*again) - 0.2), tone.levelDb,
                    kLevelToleranceDb)
            << "the second recording";
    }
}

INSTANTIATE_TEST_SUITE_P(Outages, ServerOutage,
                         ::testing::Values(OutageCase{"revived_m4a", "m4a", true, false},
                                           OutageCase{"revived_wav", "wav", true, true},
                                           OutageCase{"away_wav", "wav", false, false}),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
