#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "engine/BoundedBufferScheduler.h"
#include "engine/CopyOfBuffer.h"
#include "engine/GainLaw.h"
#include "engine/LevelStore.h"
#include "tests/support/GraphRig.h"

namespace bw {
namespace {

TEST(GainLawTest, SplitsTheFaderBetweenPlayerVolumeAndDecibels) {
    const float inf = std::numeric_limits<float>::infinity();
    struct Case {
        float volume;
        float playerVolume;
        float gainDb;
    };
    const std::vector<Case> cases = {
        {1.0f, 1.0f, 0.0f},    {0.5f, 0.5f, 0.0f},     {1.5f, 1.0f, 3.5218f},
        {2.0f, 1.0f, 3.5218f}, {1.2f, 1.0f, 1.5836f},  {-0.5f, 0.0f, 0.0f},
        {0.0f, 0.0f, 0.0f},    {inf, 1.0f, 0.0f},      {-inf, 1.0f, 0.0f},
        {std::nanf(""), 1.0f, 0.0f},
    };
    for (const auto& c : cases) {
        const GainSetting setting = gainLaw(c.volume);
        EXPECT_FLOAT_EQ(setting.playerVolume, c.playerVolume) << c.volume;
        EXPECT_NEAR(setting.globalGainDb, c.gainDb, 1e-4) << c.volume;
    }
}

TEST(LevelStoreTest, KeepsTheLoudestPeakSinceTheLastDrain) {
    LevelStore store;
    store.record("a", 0.5f);
    store.record("a", 0.3f);
    store.record("b", 0.0f);
    store.record("c", 0.9f);
    EXPECT_EQ(store.drain(), (std::map<std::string, float>{{"a", 0.5f}, {"c", 0.9f}}));
    store.record("c", 0.2f);
    store.record("b", 0.0f);
    EXPECT_EQ(store.drain(), (std::map<std::string, float>{{"c", 0.2f}}));
    EXPECT_TRUE(store.drain().empty());
}

TEST(PeakLevelTest, ScansEveryBlockAndClampsAtFullScale) {
    struct Case {
        const char* what;
        std::shared_ptr<PCMBuffer> buffer;
        float expected;
    };
    auto stereo = test::makeBuffer(48000, {{0.1f, -0.4f}, {0.2f, 0.3f}});
    auto loud = test::makeBuffer(48000, {{0.1f, 1.7f}});
    auto empty = PCMBuffer::make(*AudioFormat::standard(48000, 2), 16);
    auto interleaved = PCMBuffer::make(AudioFormat(CommonFormat::pcmFormatFloat32, 48000, 2, true), 512);
    interleaved->setFrameLength(512);
    interleaved->floatChannelData()[0][1023] = -0.75f;  // the last sample of the one block
    auto ints = PCMBuffer::make(AudioFormat(CommonFormat::pcmFormatInt16, 48000, 2, true), 8);
    ints->setFrameLength(8);
    const std::vector<Case> cases = {
        {"planar", stereo, 0.4f},
        {"above full scale", loud, 1.0f},
        {"no frames", empty, 0.0f},
        {"interleaved scanned as one block of 1024", interleaved, 0.75f},
        {"no float samples", ints, 0.0f},
    };
    for (const auto& c : cases) {
        EXPECT_FLOAT_EQ(peakLevel(*c.buffer), c.expected) << c.what;
    }
}

TEST(CopyOfBufferTest, CopiesEverySampleIntoMemoryOfItsOwn) {
    auto interleaved = PCMBuffer::make(AudioFormat(CommonFormat::pcmFormatFloat32, 48000, 2, true), 512);
    interleaved->setFrameLength(512);
    for (int i = 0; i < 1024; ++i) {
        interleaved->floatChannelData()[0][i] = float(i);
    }
    auto copy = copyOfBuffer(*interleaved);
    ASSERT_TRUE(copy);
    EXPECT_EQ(copy->format(), interleaved->format());
    EXPECT_EQ(copy->frameLength(), 512u);
    EXPECT_NE(copy->floatChannelData()[0], interleaved->floatChannelData()[0]);
    for (int i = 0; i < 1024; ++i) {
        ASSERT_EQ(copy->floatChannelData()[0][i], float(i));
    }
    auto planar = test::makeBuffer(44100, {{1, 2, 3}, {4, 5, 6}, {7, 8, 9}});
    auto planarCopy = copyOfBuffer(*planar);
    ASSERT_TRUE(planarCopy);
    EXPECT_EQ(planarCopy->floatChannelData()[2][2], 9.0f);
    auto ints = PCMBuffer::make(AudioFormat(CommonFormat::pcmFormatInt16, 48000, 2, true), 8);
    EXPECT_FALSE(copyOfBuffer(*ints));
}

class SchedulerTest : public ::testing::Test {
protected:
    void SetUp() override {
        rig_.engine->attach(player_);
        ASSERT_TRUE(rig_.engine->connect(player_, rig_.engine->mainMixerNode(), kFormat));
        ASSERT_TRUE(rig_.engine->start());
        player_->play();
    }
    std::shared_ptr<PCMBuffer> buffer() { return test::makeBuffer(48000, {ones_, ones_}); }
    void waitForPending(int expected) {
        for (int i = 0; i < 500 && scheduler_->pendingBuffers() != expected; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        EXPECT_EQ(scheduler_->pendingBuffers(), expected);
    }

    const AudioFormat kFormat = *AudioFormat::standard(48000, 2);
    std::vector<float> ones_ = std::vector<float>(100, 0.5f);
    test::GraphRig rig_;
    std::shared_ptr<AudioPlayerNode> player_ = std::make_shared<AudioPlayerNode>();
    std::shared_ptr<BoundedBufferScheduler> scheduler_ = std::make_shared<BoundedBufferScheduler>(player_);
    std::vector<std::string> reports_;
    FailureCallback onOverrun_ = [this](const std::string& message) { reports_.push_back(message); };
};

TEST_F(SchedulerTest, TheNinetySeventhBufferIsDroppedAndReportedOnceAcrossOverruns) {
    for (int i = 0; i < 96; ++i) {
        scheduler_->schedule(buffer(), onOverrun_);
    }
    EXPECT_TRUE(reports_.empty());
    scheduler_->schedule(buffer(), onOverrun_);
    scheduler_->schedule(buffer(), onOverrun_);
    EXPECT_EQ(reports_, std::vector<std::string>{
                            "Recording stopped because audio capture could not keep up."});
    EXPECT_EQ(scheduler_->pendingBuffers(), 96);
    // Played-back buffers give their slots back; a later overrun stays silent.
    rig_.render(1000, 100);
    waitForPending(86);
    for (int i = 0; i < 20; ++i) {
        scheduler_->schedule(buffer(), onOverrun_);
    }
    EXPECT_EQ(scheduler_->pendingBuffers(), 96);
    EXPECT_EQ(reports_.size(), 1u);
}

TEST_F(SchedulerTest, StoppedSchedulersDropSilentlyAndLateCompletionsLeaveZero) {
    for (int i = 0; i < 5; ++i) {
        scheduler_->schedule(buffer(), onOverrun_);
    }
    scheduler_->stopAndForgetPending();
    scheduler_->schedule(buffer(), onOverrun_);
    EXPECT_EQ(scheduler_->pendingBuffers(), 0);
    player_->stop();  // discards the five: their completions now arrive late
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(scheduler_->pendingBuffers(), 0);
    EXPECT_TRUE(reports_.empty());
    scheduler_->clearStopped();
    scheduler_->schedule(buffer(), onOverrun_);
    EXPECT_EQ(scheduler_->pendingBuffers(), 1);
}

}  // namespace
}  // namespace bw
