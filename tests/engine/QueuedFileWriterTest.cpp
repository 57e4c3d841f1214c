#include "engine/QueuedFileWriter.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <future>

#include "engine/RecordingFormat.h"
#include "tests/support/DecodedAudio.h"
#include "tests/support/GraphRig.h"

namespace bw {
namespace {

namespace fs = std::filesystem;

class QueuedFileWriterTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = fs::temp_directory_path() /
               ("bw-writer-" + std::to_string(::getpid()) + "-" +
                ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(dir_);
        fs::create_directories(dir_);
    }
    void TearDown() override { fs::remove_all(dir_); }

    // `headerSizeLimit` pretends the format's header cannot count past that many bytes.
    std::shared_ptr<QueuedFileWriter> makeWriter(const fs::path& path,
                                                 std::uint64_t headerSizeLimit = 0) {
        const auto format = *RecordingFormat::fromRawValue(path.extension().string().substr(1));
        auto file = AudioFile::createForWriting(path, format.fileSettings(48000, 2));
        EXPECT_TRUE(file) << (file ? "" : file.error().localizedDescription());
        if (headerSizeLimit > 0) {
            file.value()->setHeaderSizeLimit(headerSizeLimit);
        }
        return std::make_shared<QueuedFileWriter>(std::move(file).value());
    }
    // Blocks the writer's queue until the returned promise is fulfilled.
    std::promise<void> blockQueue(QueuedFileWriter& writer) {
        std::promise<void> release;
        writer.queue().async([future = release.get_future().share()] { future.wait(); });
        return release;
    }
    void closeAndWait(QueuedFileWriter& writer) {
        std::promise<void> closed;
        writer.close([&] { closed.set_value(); });
        ASSERT_EQ(closed.get_future().wait_for(std::chrono::seconds(10)),
                  std::future_status::ready);
    }

    fs::path dir_;
    std::vector<std::string> reports_;
    std::mutex reportsMutex_;
    FailureCallback onFailure_ = [this](const std::string& message) {
        std::lock_guard guard(reportsMutex_);
        reports_.push_back(message);
    };
    std::shared_ptr<PCMBuffer> frame_ =
        test::makeBuffer(48000, {std::vector<float>(512, 0.25f), std::vector<float>(512, -0.25f)});
};

TEST_F(QueuedFileWriterTest, TheTwentyFifthBufferInFlightIsDroppedAndReportedOnlyOnce) {
    auto writer = makeWriter(dir_ / "take.wav");
    auto release = blockQueue(*writer);
    for (int i = 0; i < 24; ++i) {
        writer->write(*frame_, onFailure_);
    }
    EXPECT_TRUE(reports_.empty());
    writer->write(*frame_, onFailure_);
    writer->write(*frame_, onFailure_);
    EXPECT_EQ(reports_,
              std::vector<std::string>{"Recording stopped because writing could not keep up."});
    release.set_value();
    writer->queue().sync([] {});
    auto blockedAgain = blockQueue(*writer);
    for (int i = 0; i < 30; ++i) {
        writer->write(*frame_, onFailure_);  // a second overload after slots freed up
    }
    blockedAgain.set_value();
    closeAndWait(*writer);
    EXPECT_EQ(reports_.size(), 1u);
    auto decoded = test::decodeAudioFile(dir_ / "take.wav");
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->frames(), std::size_t(24 + 24) * 512)
        << "every accepted buffer is in the file";
}

// Also when the engine drops its writer as soon as it has asked for the close (rounds after the
// first, a few times over).
TEST_F(QueuedFileWriterTest, CloseCompletesAfterEveryQueuedWriteAndRefusesLaterOnes) {
    for (int round = 0; round < 5; ++round) {
        const fs::path path = dir_ / ("take" + std::to_string(round) + ".wav");
        auto writer = makeWriter(path);
        auto release = blockQueue(*writer);
        for (int i = 0; i < 10; ++i) {
            writer->write(*frame_, onFailure_);
        }
        // The length the header tells when the completion runs.
        std::promise<std::optional<double>> closed;
        writer->close([&] { closed.set_value(test::pcmHeaderSeconds(path)); });
        writer->write(*frame_, onFailure_);  // after the close: neither written nor reported
        if (round > 0) {
            writer.reset();
        }
        release.set_value();
        auto done = closed.get_future();
        ASSERT_EQ(done.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        EXPECT_EQ(done.get(), 10 * 512 / 48000.0) << "the file was complete when it said so";
        const auto decoded = test::decodeAudioFile(path);
        ASSERT_TRUE(decoded);
        EXPECT_EQ(decoded->frames(), 10u * 512);
        EXPECT_FLOAT_EQ(decoded->channelsData[0][100], 0.25f);
    }
    EXPECT_TRUE(reports_.empty());
}

TEST_F(QueuedFileWriterTest, CloseOnItsOwnQueueCompletesBeforeReturning) {
    auto writer = makeWriter(dir_ / "take.wav");
    bool completedInside = false;
    writer->queue().sync([&] {
        bool completed = false;
        writer->close([&] { completed = true; });
        completedInside = completed;
    });
    EXPECT_TRUE(completedInside);
}

TEST_F(QueuedFileWriterTest, AFailedWriteIsReportedOnceAndLaterOverloadsStaySilent) {
    // Files of this process may not grow past 1 MB: the header goes through, the audio fails.
    struct FileSizeLimit {
        rlimit old{};
        explicit FileSizeLimit(rlim_t bytes) {
            getrlimit(RLIMIT_FSIZE, &old);
            std::signal(SIGXFSZ, SIG_IGN);
            const rlimit limited{bytes, old.rlim_max};
            setrlimit(RLIMIT_FSIZE, &limited);
        }
        ~FileSizeLimit() {
            setrlimit(RLIMIT_FSIZE, &old);
            std::signal(SIGXFSZ, SIG_DFL);
        }
    } limit(1 << 20);
    auto writer = makeWriter(dir_ / "full.wav");
    auto big =
        test::makeBuffer(48000, {std::vector<float>(48000, 0.1f), std::vector<float>(48000, 0.1f)});
    for (int i = 0; i < 8; ++i) {
        writer->write(*big, onFailure_);
    }
    writer->queue().sync([] {});
    auto release = blockQueue(*writer);
    for (int i = 0; i < 30; ++i) {
        writer->write(*big, onFailure_);
    }
    release.set_value();
    closeAndWait(*writer);
    ASSERT_EQ(reports_.size(), 1u);
    EXPECT_EQ(reports_[0].rfind("Recording failed while writing the file. ", 0), 0u) << reports_[0];
    EXPECT_NE(reports_[0].find("File too large"), std::string::npos) << reports_[0];
}

TEST_F(QueuedFileWriterTest, AnAiffAtItsSizeLimitEndsTheRecordingWithItsOwnReason) {
    auto writer = makeWriter(dir_ / "take.aiff", 100000);
    for (int i = 0; i < 60; ++i) {
        writer->write(*frame_, onFailure_);
        writer->queue().sync([] {});
    }
    closeAndWait(*writer);
    ASSERT_EQ(reports_.size(), 1u);
    EXPECT_EQ(reports_[0].rfind("Recording stopped: AIFF files", 0), 0u) << reports_[0];
    auto decoded = test::decodeAudioFile(dir_ / "take.aiff");
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->frames(), std::size_t(writer->framesWritten()));
}

TEST_F(QueuedFileWriterTest, ABufferThatCannotBeCopiedGivesItsSlotBackAndReportsOnce) {
    auto writer = makeWriter(dir_ / "take.wav");
    auto ints = PCMBuffer::make(AudioFormat(CommonFormat::pcmFormatInt16, 48000, 2, true), 64);
    ints->setFrameLength(64);
    auto release = blockQueue(*writer);
    for (int i = 0; i < 30; ++i) {
        writer->write(*ints, onFailure_);
    }
    EXPECT_EQ(reports_,
              std::vector<std::string>{"Recording failed while preparing audio for writing."});
    for (int i = 0; i < 24; ++i) {
        writer->write(*frame_, onFailure_);  // all 24 slots are free again
    }
    EXPECT_EQ(reports_.size(), 1u);
    release.set_value();
    closeAndWait(*writer);
    auto decoded = test::decodeAudioFile(dir_ / "take.wav");
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->frames(), 24u * 512);
}

}  // namespace
}  // namespace bw
