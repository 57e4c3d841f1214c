#include "engine/RecordingEngine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <fstream>
#include <functional>
#include <span>
#include <thread>

#include "tests/support/DecodedAudio.h"
#include "tests/support/EngineRig.h"

namespace bw {
namespace {

namespace fs = std::filesystem;
using test::EngineRig;
using test::FakeHardware;
using test::HardwareOperation;
constexpr auto levelIn = &EngineRig::levelIn;

const AudioFormat kMono44 = *AudioFormat::standard(44100, 1);
const AudioFormat kStereo32 = *AudioFormat::standard(32000, 2);
const AudioFormat kStereo48 = *AudioFormat::standard(48000, 2);

double db(double linear) {
    return 20.0 * std::log10(linear);
}

class CaptureError : public Error {
public:
    explicit CaptureError(std::string text) : text_(std::move(text)) {}
    std::string localizedDescription() const override { return text_; }

private:
    std::string text_;
};

struct FormatCase {
    RecordingFormat format;
    double toleranceDb;
    friend void PrintTo(const FormatCase& c, std::ostream* os) { *os << c.format.rawValue(); }
};

class RecordingContentTest : public ::testing::TestWithParam<FormatCase> {};

TEST_P(RecordingContentTest, SourcesAtTheirOwnFormatsLandInTheFileAtTheGainLawsLevels) {
    EngineRig rig;
    auto low = rig.addSource("Low", kMono44, 1000.0, 0.4f, 2.0);
    auto high = rig.addSource("High", kStereo32, 3000.0, 0.4f, 2.0);
    auto configuration =
        rig.configuration({low, high}, GetParam().format, {{low.id, 0.5f}, {high.id, 1.5f}});
    const std::string extension = "." + GetParam().format.rawValue();
    configuration.sourceFileURLs = {{low.id, rig.folder / "takes" / ("low" + extension)},
                                    {high.id, rig.folder / "takes" / ("high" + extension)}};
    auto engine = rig.makeEngine(configuration);
    ASSERT_TRUE(EngineRig::start(*engine));
    rig.run(2.0);
    const fs::path url = EngineRig::stop(*engine);
    EXPECT_EQ(url, engine->configuration().fileURL);

    auto decoded = test::decodeAudioFile(url);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->sampleRate, 48000);
    EXPECT_EQ(decoded->channels, 2);
    EXPECT_GE(decoded->frames(), 48000u * 19 / 10) << "nearly all of the two seconds";
    for (int channel = 0; channel < 2; ++channel) {
        const auto& samples = decoded->channelsData[std::size_t(channel)];
        EXPECT_NEAR(levelIn(samples, 1000.0, 0.3, 1.7), db(0.2), GetParam().toleranceDb);
        EXPECT_NEAR(levelIn(samples, 3000.0, 0.3, 1.7), db(0.6), GetParam().toleranceDb);
    }
    EXPECT_TRUE(rig.reportsSoFar().empty());
    EXPECT_TRUE(engine->sourcesWithoutAudio().empty());

    // Each source's own file: only that source, after its fader, in the mix's format and frames.
    struct Stem {
        RecordingSource source;
        double frequency, otherFrequency, linear;
    };
    std::vector<test::DecodedAudio> stems;
    for (const Stem& stem : {Stem{low, 1000.0, 3000.0, 0.2}, Stem{high, 3000.0, 1000.0, 0.6}}) {
        SCOPED_TRACE(stem.source.name);
        auto own = test::decodeAudioFile(configuration.sourceFileURLs.at(stem.source.id));
        ASSERT_TRUE(own);
        EXPECT_EQ(own->codecName, decoded->codecName);
        EXPECT_EQ(own->sampleRate, 48000);
        ASSERT_EQ(own->channels, 2);
        EXPECT_EQ(own->frames(), decoded->frames());
        for (const auto& samples : own->channelsData) {
            EXPECT_NEAR(levelIn(samples, stem.frequency, 0.3, 1.7), db(stem.linear),
                        GetParam().toleranceDb);
            EXPECT_LT(levelIn(samples, stem.otherFrequency, 0.3, 1.7), -60.0);
        }
        stems.push_back(std::move(*own));
    }
    EXPECT_TRUE(engine->sourceFileFailures().empty());
    if (GetParam().format != RecordingFormat::m4a) {
        // Sample-aligned: in 16 bits the stems add up to the mix, give or take their rounding.
        for (std::size_t c = 0; c < 2; ++c) {
            for (std::size_t i = 0; i < decoded->frames(); ++i) {
                ASSERT_NEAR(stems[0].channelsData[c][i] + stems[1].channelsData[c][i],
                            decoded->channelsData[c][i], 3.0 / 32768)
                    << "channel " << c << ", frame " << i;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, RecordingContentTest,
                         ::testing::Values(FormatCase{RecordingFormat::wav, 0.1},
                                           FormatCase{RecordingFormat::aiff, 0.1},
                                           FormatCase{RecordingFormat::m4a, 0.5}),
                         [](const auto& info) { return info.param.format.rawValue(); });

// One source fails to start, one has no capture, one never delivers, and one's own file fills a
// disk at once: each is only a warning, and the mix goes on.
TEST(RecordingEngineTest, SourcesThatFailOrStayQuietLeaveWarningsAndTheOthersAreRecorded) {
    EngineRig rig;
    auto broken =
        rig.addSource("Broken", kStereo48, 500.0, 0.5f, 1.0,
                      makeError(CaptureError("Audio system error 1 during create process tap")));
    // The factory makes nothing for a source it doesn't know.
    const auto missing = RecordingSource::application(999, "org.test.Missing", "Missing", true);
    auto quiet = rig.addSource("Quiet", kStereo48, 500.0, 0.5f, 0.0);
    auto loud = rig.addSource("Loud", kStereo48, 1000.0, 0.5f, 1.0);
    auto configuration = rig.configuration({broken, missing, quiet, loud});
    fs::create_directories(rig.folder / "takes");
    fs::create_symlink("/dev/full", rig.folder / "takes" / "loud.wav");
    configuration.sourceFileURLs = {{quiet.id, rig.folder / "takes" / "quiet.wav"},
                                    {loud.id, rig.folder / "takes" / "loud.wav"}};
    auto engine = rig.makeEngine(configuration);
    ASSERT_TRUE(EngineRig::start(*engine));
    EXPECT_EQ(engine->sourceFailures(),
              (std::map<std::string, std::string>{
                  {broken.id, "Broken: Audio system error 1 during create process tap"},
                  {missing.id, "Missing: This source could not be opened for recording."}}));
    rig.run(0.5);
    const auto url = EngineRig::stop(*engine);
    const auto silent = engine->sourcesWithoutAudio();
    ASSERT_EQ(silent.size(), 1u) << "the failed sources are not listed";
    EXPECT_EQ(silent[0].id, quiet.id);

    auto mix = test::decodeAudioFile(url);
    auto own = test::decodeAudioFile(configuration.sourceFileURLs.at(quiet.id));
    ASSERT_TRUE(mix && own);
    EXPECT_GE(mix->frames(), 48000u * 4 / 10);
    EXPECT_EQ(own->frames(), mix->frames()) << "lines up with the others in an editor";
    EXPECT_LT(test::rmsDb(own->channelsData[0]), -90.0);
    EXPECT_NEAR(levelIn(mix->channelsData[0], 1000.0, 0.1, 0.4), db(0.5), 0.1);
    const auto failures = engine->sourceFileFailures();
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].rfind("Loud: Its own file ", 0), 0u) << failures[0];
    EXPECT_TRUE(rig.reportsSoFar().empty()) << "the recording itself did not fail";
}

struct StartFailure {
    const char* name;
    ::testing::Matcher<std::string> reason;
    std::function<std::shared_ptr<RecordingEngine>(EngineRig&)> arrange;
    bool beforeAnything = false;  // neither the folder nor the output was touched
};

TEST(RecordingEngineTest, AStartThatFailsGivesItsReasonLeavesNoFileAndStopsWhatHadStarted) {
    using ::testing::Eq;
    const auto one = [](EngineRig& rig, bool passthrough = false) {
        auto source = rig.addSource("A", kStereo48, 500.0, 0.5f, 1.0);
        return rig.configuration({source}, RecordingFormat::wav, {}, passthrough);
    };
    const std::vector<StartFailure> cases = {
        {"no source starts", Eq("No audio source could be started.\nA: gone\nB: denied"),
         [](EngineRig& rig) {
             auto a =
                 rig.addSource("A", kStereo48, 500.0, 0.5f, 1.0, makeError(CaptureError("gone")));
             auto b =
                 rig.addSource("B", kStereo48, 500.0, 0.5f, 1.0, makeError(CaptureError("denied")));
             return rig.makeEngine(rig.configuration({a, b}));
         },
         true},
        {"no sources at all", Eq("No audio source could be started.\n"),
         [](EngineRig& rig) { return rig.makeEngine(rig.configuration({})); }, true},
        // The platform's own error, not wrapped.
        {"the output won't start",
         Eq("The audio output device could not be started (audio system error -50)."),
         [&](EngineRig& rig) {
             rig.hardware->failNext(HardwareOperation::deviceStart, -50);
             return rig.makeEngine(one(rig, true));
         }},
        // Rather than writing an empty file.
        {"the mix's one tap is taken", Eq("The mix could not be routed to the recording file."),
         [&](EngineRig& rig) {
             auto mixer = std::make_shared<AudioMixerNode>();
             EXPECT_TRUE(mixer->installTap(0, 1024, kStereo48,
                                           [](std::shared_ptr<PCMBuffer>, AudioTimeStamp) {}));
             return rig.makeEngine(one(rig), mixer);
         }},
        {"a file where the folder should be",
         ::testing::MatchesRegex("Could not create the recording file\\. .+"),
         [&](EngineRig& rig) {
             fs::create_directories(rig.folder);
             std::ofstream(rig.folder / "takes") << "not a folder";
             return rig.makeEngine(one(rig));
         }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EngineRig rig;
        auto engine = c.arrange(rig);
        auto started = EngineRig::start(*engine);
        ASSERT_FALSE(started);
        EXPECT_THAT(started.error()->localizedDescription(), c.reason);
        EXPECT_FALSE(fs::exists(engine->configuration().fileURL));
        for (const auto& [id, feed] : rig.feeds) {
            EXPECT_FALSE(feed.capture->format()) << id << " was left running";
        }
        if (c.beforeAnything) {
            EXPECT_FALSE(fs::exists(rig.folder / "takes"));
            EXPECT_EQ(rig.hardware->callCount(HardwareOperation::createIOProcID), 0u);
        }
    }
}

TEST(RecordingEngineTest, WithoutPassthroughNothingPlaysToTheSpeakersWhileTheFileHasTheMix) {
    for (bool passthrough : {false, true}) {
        EngineRig rig;
        auto source = rig.addSource("A", kStereo48, 1000.0, 0.5f, 1.0);
        auto engine =
            rig.makeEngine(rig.configuration({source}, RecordingFormat::wav, {}, passthrough));
        ASSERT_TRUE(EngineRig::start(*engine));
        EXPECT_EQ(rig.hardware->runningIOProcCount(rig.speakers), passthrough ? 1u : 0u);
        auto speakers = rig.run(1.0);
        const auto url = EngineRig::stop(*engine);
        EXPECT_EQ(rig.captures.requests()[0].muteTappedAudio, passthrough);
        if (passthrough) {
            EXPECT_NEAR(levelIn(speakers[0], 1000.0, 0.2, 0.8), db(0.5), 0.1);
        }
        auto decoded = test::decodeAudioFile(url);
        ASSERT_TRUE(decoded);
        EXPECT_NEAR(levelIn(decoded->channelsData[0], 1000.0, 0.2, 0.8), db(0.5), 0.1)
            << "passthrough " << passthrough;
    }
}

TEST(RecordingEngineTest, TheDrainWaitsAQuarterSecondInAllHoweverManySourcesAreFull) {
    EngineRig rig;
    std::vector<RecordingSource> sources;
    for (int i = 0; i < 6; ++i) {
        sources.push_back(rig.addSource("S" + std::to_string(i), kStereo48, 500.0, 0.1f, 1.0));
    }
    auto engine = rig.makeEngine(rig.configuration(sources, RecordingFormat::wav, {}, true));
    ASSERT_TRUE(EngineRig::start(*engine));
    for (const auto& source : sources) {
        rig.flood(source.id, 96);  // the speakers never run: every scheduler stays full
    }
    const auto before = std::chrono::steady_clock::now();
    EngineRig::stop(*engine);
    const auto took = std::chrono::steady_clock::now() - before;
    EXPECT_GE(took, std::chrono::milliseconds(250));
    EXPECT_LT(took, std::chrono::milliseconds(450));
    EXPECT_TRUE(rig.reportsSoFar().empty());
}

TEST(RecordingEngineTest, AnOverrunIsReportedOnceAndTheStopStillReturnsTheFile) {
    EngineRig rig;
    auto source = rig.addSource("A", kStereo48, 500.0, 0.1f, 1.0);
    auto engine = rig.makeEngine(rig.configuration({source}, RecordingFormat::wav, {}, true));
    ASSERT_TRUE(EngineRig::start(*engine));
    rig.run(0.2);
    rig.flood(source.id, 150);
    rig.run(0.5);
    rig.flood(source.id, 150);
    EXPECT_EQ(
        rig.reportsSoFar(),
        std::vector<std::string>{"Recording stopped because audio capture could not keep up."});
    // Audio lost inside the capture itself reaches the same report.
    rig.feeds[source.id].capture->loseAudio("lost in the capture");
    EXPECT_EQ(rig.reportsSoFar().back(), "lost in the capture");
    const auto url = EngineRig::stop(*engine);
    EXPECT_EQ(url, engine->configuration().fileURL);
    EXPECT_TRUE(test::decodeAudioFile(url));
}

TEST(RecordingEngineTest, AVolumeChangeReachesTheFileFromThatMoment) {
    EngineRig rig;
    auto source = rig.addSource("A", kMono44, 1000.0, 0.4f, 2.0);
    auto engine = rig.makeEngine(rig.configuration({source}));
    ASSERT_TRUE(EngineRig::start(*engine));
    rig.run(1.0);
    engine->setVolume(0.5f, source.id);
    engine->setVolume(1.5f, "app:not.recorded");  // ignored
    engine->controlQueue().sync([] {});
    rig.run(1.0);
    auto decoded = test::decodeAudioFile(EngineRig::stop(*engine));
    ASSERT_TRUE(decoded);
    EXPECT_NEAR(levelIn(decoded->channelsData[0], 1000.0, 0.2, 0.9), db(0.4), 0.1);
    EXPECT_NEAR(levelIn(decoded->channelsData[1], 1000.0, 1.15, 1.8), db(0.2), 0.1);
}

TEST(RecordingEngineTest, AnOutputChangeRestartsTheGraphAndTheRecordingGoesOnInTheSameFile) {
    EngineRig rig;
    const auto headphones = rig.hardware->addDevice(
        {"headphones", "Headphones", FakeHardware::floatFormat(44100, 2, false), {}});
    auto source = rig.addSource("A", kStereo48, 1000.0, 0.5f, 2.0);
    auto engine = rig.makeEngine(rig.configuration({source}, RecordingFormat::wav, {}, true));
    ASSERT_TRUE(EngineRig::start(*engine));
    rig.run(1.0);
    rig.hardware->setDefaultOutputDevice(headphones);
    for (int i = 0; i < 500 && rig.hardware->runningIOProcCount(headphones) == 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    ASSERT_EQ(rig.hardware->runningIOProcCount(headphones), 1u) << "restarted on the new output";
    EXPECT_EQ(rig.hardware->ioProcCount(rig.speakers), 0u);
    rig.run(1.0, headphones, 44100);
    auto decoded = test::decodeAudioFile(EngineRig::stop(*engine));
    ASSERT_TRUE(decoded);
    EXPECT_GE(decoded->frames(), std::size_t(48000 * 1.8));
    EXPECT_NEAR(levelIn(decoded->channelsData[0], 1000.0, 0.2, 0.9), db(0.5), 0.1);
    EXPECT_NEAR(levelIn(decoded->channelsData[0], 1000.0, 1.2, 1.8), db(0.5), 0.1);
    EXPECT_TRUE(rig.reportsSoFar().empty());
}

TEST(RecordingEngineTest, ARestartThatFailsReportsTheOutputChange) {
    EngineRig rig;
    const auto headphones = rig.hardware->addDevice(
        {"headphones", "Headphones", FakeHardware::floatFormat(48000, 2), {}});
    auto source = rig.addSource("A", kStereo48, 1000.0, 0.5f, 1.0);
    auto engine = rig.makeEngine(rig.configuration({source}, RecordingFormat::wav, {}, true));
    ASSERT_TRUE(EngineRig::start(*engine));
    rig.run(0.3);
    rig.hardware->failNext(HardwareOperation::deviceStart, 1852797029);
    rig.hardware->setDefaultOutputDevice(headphones);
    for (int i = 0; i < 500 && rig.reportsSoFar().empty(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    const auto reports = rig.reportsSoFar();
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].rfind("Recording stopped because the audio output changed. ", 0), 0u)
        << reports[0];
    EXPECT_NE(reports[0].find("1852797029"), std::string::npos);
    EXPECT_EQ(EngineRig::stop(*engine), engine->configuration().fileURL);
}

TEST(RecordingEngineTest, LevelsHoldEachSourcesRawPeakAndTheMixAfterTheFaders) {
    EngineRig rig;
    auto source = rig.addSource("A", kStereo48, 1000.0, 0.8f, 1.0);
    auto engine =
        rig.makeEngine(rig.configuration({source}, RecordingFormat::wav, {{source.id, 0.5f}}));
    ASSERT_TRUE(EngineRig::start(*engine));
    rig.run(0.5);
    engine->levels().drain();
    rig.run(0.3);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    auto peaks = engine->levels().drain();
    EngineRig::stop(*engine);
    EXPECT_NEAR(peaks[source.id], 0.8f, 0.01f) << "before the fader";
    EXPECT_NEAR(peaks[RecordingSource::kMasterLevelKey], 0.4f, 0.01f) << "after the fader";
}

}  // namespace
}  // namespace bw
