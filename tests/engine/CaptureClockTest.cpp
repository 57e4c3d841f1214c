#include "engine/CaptureClock.h"

#include <gtest/gtest.h>

#include <barrier>
#include <cmath>
#include <span>
#include <thread>

#include "tests/support/DecodedAudio.h"
#include "tests/support/EngineRig.h"

namespace bw {
namespace {

using test::EngineRig;
using State = CaptureClock::SourceState;

struct ReadyCase {
    const char* name;
    std::vector<State> sources;
    FrameCount lagLimit;
    FrameCount expected;
};

class FramesReadyTest : public ::testing::TestWithParam<ReadyCase> {};

TEST_P(FramesReadyTest, TheMixWaitsForTheFlowingSourcesButNotForever) {
    const auto& c = GetParam();
    EXPECT_EQ(CaptureClock::framesReady(c.sources, c.lagLimit), c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Rules, FramesReadyTest,
    ::testing::Values(
        ReadyCase{"LeastOfTheFlowing", {{1024, false}, {480, false}, {2048, false}}, 9600, 480},
        ReadyCase{
            "AFlowingSourceWithNothingQueuedHoldsTheMix", {{4096, false}, {0, false}}, 9600, 0},
        ReadyCase{"AQuietSourceDoesNot", {{4096, false}, {0, true}}, 9600, 4096},
        ReadyCase{"EveryoneQuiet", {{0, true}, {0, true}}, 9600, 0},
        ReadyCase{"NoSources", {}, 9600, 0},
        ReadyCase{"TheLeaderNeverMoreThanTheLimitAhead", {{12000, false}, {0, false}}, 9600, 2400},
        ReadyCase{"ALimitOfNothingRendersAllThatIsQueued", {{700, false}, {100, false}}, 0, 700}),
    [](const auto& info) { return std::string(info.param.name); });

const AudioFormat kStereo48 = *AudioFormat::standard(48000, 2);
const AudioFormat kMono44 = *AudioFormat::standard(44100, 1);

double levelIn(const test::DecodedAudio& audio, double frequency, double from, double to) {
    return EngineRig::levelIn(audio.channelsData[0], frequency, from, to);
}

// Hands `seconds` of the source's signal over in 10 ms buffers, in real time when `paced`.
void feed(EngineRig::Feed& feed, double seconds, bool paced) {
    for (int i = 0; i < int(seconds * 100 + 0.5); ++i) {
        EngineRig::deliver(feed);
        std::this_thread::sleep_for(std::chrono::milliseconds(paced ? 10 : 1));
    }
}

constexpr double kTone = -12.04;  // 0.25 of full scale

TEST(CaptureClockTest, ASourceThatStartsLateLandsWhereItArrivedAndTheOtherPlaysOnWithoutAGap) {
    EngineRig rig;
    auto early = rig.addSource("Early", kStereo48, 500.0, 0.25f, 2.0);
    auto late = rig.addSource("Late", kMono44, 1000.0, 0.25f, 2.0);
    auto engine = rig.makeEngine(rig.configuration({early, late}));
    ASSERT_TRUE(EngineRig::start(*engine));
    feed(rig.feeds[early.id], 0.3, true);
    std::thread other([&] { feed(rig.feeds[late.id], 0.5, true); });
    feed(rig.feeds[early.id], 0.5, true);
    other.join();
    auto decoded = test::decodeAudioFile(EngineRig::stop(*engine));
    ASSERT_TRUE(decoded);
    EXPECT_NEAR(levelIn(*decoded, 500.0, 0.05, 0.75), kTone, 0.2) << "the early source";
    EXPECT_LT(levelIn(*decoded, 1000.0, 0.05, 0.25), -60.0) << "the late one before it began";
    EXPECT_NEAR(levelIn(*decoded, 1000.0, 0.36, 0.75), kTone, 0.2) << "and after";
    EXPECT_TRUE(rig.reportsSoFar().empty());
}

TEST(CaptureClockTest, WithEverySourceQuietTheFileKeepsPaceWithTheClock) {
    EngineRig rig;
    auto source = rig.addSource("A", kStereo48, 500.0, 0.25f, 1.0);
    auto engine = rig.makeEngine(rig.configuration({source}));
    ASSERT_TRUE(EngineRig::start(*engine));
    feed(rig.feeds[source.id], 0.3, false);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    feed(rig.feeds[source.id], 0.3, false);
    auto decoded = test::decodeAudioFile(EngineRig::stop(*engine));
    ASSERT_TRUE(decoded);
    const double seconds = double(decoded->frames()) / 48000;
    EXPECT_GT(seconds, 1.4) << "the quiet second is a gap in the file";
    EXPECT_LT(seconds, 2.0);
    EXPECT_LT(levelIn(*decoded, 500.0, 0.6, 1.1), -60.0);
    EXPECT_NEAR(levelIn(*decoded, 500.0, seconds - 0.3, seconds - 0.12), kTone, 0.2)
        << "the source after its quiet spell";
}

TEST(CaptureClockTest, AtTheStopEverythingDeliveredReachesTheFileInWholeTapBuffers) {
    // Sources delivering at full speed from threads of their own, as captures do; in step, so
    // that a thread the scheduler holds back (a busy machine, a sanitizer) never looks like a
    // source gone quiet while the other races on.
    EngineRig rig;
    std::vector<RecordingSource> sources{rig.addSource("A", kStereo48, 500.0, 0.25f, 1.0),
                                         rig.addSource("B", kMono44, 1000.0, 0.25f, 1.0)};
    auto engine = rig.makeEngine(rig.configuration(sources));
    ASSERT_TRUE(EngineRig::start(*engine));
    std::barrier inStep(std::ptrdiff_t(sources.size()));
    std::vector<std::thread> captures;
    for (const auto& source : sources) {
        captures.emplace_back([&, id = source.id] {
            for (int i = 0; i < 100; ++i) {
                EngineRig::deliver(rig.feeds.at(id));
                inStep.arrive_and_wait();
            }
        });
    }
    for (auto& thread : captures) {
        thread.join();
    }
    auto decoded = test::decodeAudioFile(EngineRig::stop(*engine));
    ASSERT_TRUE(decoded);
    EXPECT_GE(decoded->frames(), 48000u);
    EXPECT_LT(decoded->frames(), 48000u + RecordingEngine::kTapBufferSize);
    EXPECT_EQ(decoded->frames() % RecordingEngine::kTapBufferSize, 0u);
    for (double frequency : {500.0, 1000.0}) {
        EXPECT_NEAR(levelIn(*decoded, frequency, 0.1, 0.99), kTone, 0.2) << frequency << " Hz";
    }
    EXPECT_TRUE(rig.reportsSoFar().empty());
}

}  // namespace
}  // namespace bw
