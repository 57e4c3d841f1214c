#include "platform/av/AudioFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>
#include <optional>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <span>
#include <string>
#include <tuple>
#include <vector>

#include "platform/hal/AudioHardwareConstants.h"
#include "tests/support/DecodedAudio.h"
#include "tests/support/SignalAnalysis.h"

namespace bw {
namespace {

namespace fs = std::filesystem;
using test::decodeAudioFile;
using test::DecodedAudio;

constexpr double kRate = 48000.0;
constexpr std::size_t kToneFrames = 72000;  // 1.5 s
constexpr double kToneHz = 1000.0;
constexpr float kLeftAmplitude = 0.5f;
constexpr float kRightAmplitude = 0.25f;

AudioSettings pcmSettings(bool bigEndian) {
    return {{AVFormatIDKey, std::int64_t(kAudioFormatLinearPCM)},
            {AVSampleRateKey, kRate},
            {AVNumberOfChannelsKey, std::int64_t(2)},
            {AVLinearPCMBitDepthKey, std::int64_t(16)},
            {AVLinearPCMIsFloatKey, false},
            {AVLinearPCMIsBigEndianKey, bigEndian},
            {AVLinearPCMIsNonInterleaved, false}};
}

AudioSettings aacSettings() {
    return {{AVFormatIDKey, std::int64_t(kAudioFormatMPEG4AAC)},
            {AVSampleRateKey, kRate},
            {AVNumberOfChannelsKey, std::int64_t(2)},
            {AVEncoderBitRateKey, std::int64_t(256000)}};
}

AudioSettings with(AudioSettings settings, const char* key, AudioSettingValue value) {
    settings[key] = value;
    return settings;
}

AudioSettings without(AudioSettings settings, const char* key) {
    settings.erase(key);
    return settings;
}

/// Bytes at a fixed place in the file that only the right container has.
struct Signature {
    std::size_t offset;
    const char* text;
};

struct FormatCase {
    const char* name;
    const char* extension;
    AudioSettings settings;
    const char* codec;
    const char* container;  // part of the demuxer's name
    const char* decodedSampleFormat;
    std::int64_t bitRate;
    double bitRateTolerance;  // relative
    bool lossless;            // PCM: every sample within half a 16-bit step
    double levelToleranceDb;
    std::vector<Signature> signatures;
    std::uint64_t headerSizeLimit = 0;  // lowered, to pass it within a second; 0 leaves it
};

const std::vector<FormatCase>& formatCases() {
    // clang-format off
    static const std::vector<FormatCase> cases = {
        {"m4a",  ".m4a",  aacSettings(),      "aac",       "mp4",  "fltp", 256000, 0.15, false, 0.5,
         {{4, "ftyp"}, {8, "M4A "}}},
        {"wav",  ".wav",  pcmSettings(false), "pcm_s16le", "wav",  "s16",  1536000, 0.0, true, 0.1,
         {{0, "RIFF"}, {8, "WAVE"}}},
        {"aiff", ".aiff", pcmSettings(true),  "pcm_s16be", "aiff", "s16",  1536000, 0.0, true, 0.1,
         {{0, "FORM"}, {8, "AIFF"}}},
        // Past its limit (here just past the first second) a WAV goes on as RF64.
        {"rf64", ".wav",  pcmSettings(false), "pcm_s16le", "wav",  "s16",  1536000, 0.0, true, 0.1,
         {{0, "RF64"}, {8, "WAVE"}, {12, "ds64"}}, 200000},
    };
    // clang-format on
    return cases;
}

void PrintTo(const FormatCase& c, std::ostream* os) {
    *os << c.name;
}

/// The stereo test tone: 1 kHz, left louder than right.
std::vector<std::vector<float>> stereoTone(std::size_t frames) {
    return {test::sine(kToneHz, kRate, frames, kLeftAmplitude),
            test::sine(kToneHz, kRate, frames, kRightAmplitude)};
}

/// A new buffer holding frames [start, start + count) of `source`, in the given layout.
std::shared_ptr<PCMBuffer> bufferOf(const std::vector<std::vector<float>>& source,
                                    std::size_t start, std::size_t count, bool interleaved) {
    const auto channels = ChannelCount(source.size());
    const AudioFormat format(CommonFormat::pcmFormatFloat32, kRate, channels, interleaved);
    auto buffer = PCMBuffer::make(format, FrameCount(std::max<std::size_t>(count, 1)));
    float* const* data = buffer->floatChannelData();
    for (std::size_t i = 0; i < count; ++i) {
        for (ChannelCount ch = 0; ch < channels; ++ch) {
            const float sample = source[ch][start + i];
            if (interleaved) {
                data[0][i * channels + ch] = sample;
            } else {
                data[ch][i] = sample;
            }
        }
    }
    EXPECT_TRUE(buffer->setFrameLength(FrameCount(count)));
    return buffer;
}

/// Writes all of `source` in buffers of the given sizes, cycling through them.
void writeAll(AudioFile& file, const std::vector<std::vector<float>>& source,
              const std::vector<std::size_t>& sizes, bool interleaved) {
    const std::size_t total = source[0].size();
    std::size_t done = 0;
    for (std::size_t turn = 0; done < total; ++turn) {
        const std::size_t count = std::min(sizes[turn % sizes.size()], total - done);
        const auto written = file.write(*bufferOf(source, done, count, interleaved));
        ASSERT_TRUE(written) << written.error().localizedDescription();
        done += count;
    }
}

std::string readBytes(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

double levelDb(const std::vector<float>& samples, std::size_t from, std::size_t to) {
    return test::toneLevelDb(std::span<const float>(samples).subspan(from, to - from), kToneHz,
                             kRate);
}

/// A fresh folder per test, removed afterwards.
class AudioFileTestBase : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "bw-audiofile-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        dir_ = pattern;
    }
    void TearDown() override {
        std::error_code ignored;
        for (const auto& entry : fs::recursive_directory_iterator(dir_, ignored)) {
            fs::permissions(entry.path(), fs::perms::owner_all, fs::perm_options::add, ignored);
        }
        fs::remove_all(dir_, ignored);
    }

    std::unique_ptr<AudioFile> create(const fs::path& path, const AudioSettings& settings) {
        auto created = AudioFile::createForWriting(path, settings);
        EXPECT_TRUE(created) << created.error().localizedDescription();
        return created ? std::move(created).value() : nullptr;
    }

    std::unique_ptr<AudioFile> create(const fs::path& path, const FormatCase& format) {
        auto file = create(path, format.settings);
        if (file && format.headerSizeLimit != 0) {
            file->setHeaderSizeLimit(format.headerSizeLimit);
        }
        return file;
    }

    fs::path dir_;
};

// --- Each format, fed in different ways --------------------------------------------------------

struct FeedCase {
    const char* name;
    std::vector<std::size_t> sizes;
    bool interleaved;
};

void PrintTo(const FeedCase& c, std::ostream* os) {
    *os << c.name;
}

const std::vector<FeedCase>& feedCases() {
    static const std::vector<FeedCase> cases = {
        {"Blocks4096", {4096}, false},
        {"OddSizesAndEmpty", {1000, 333, 0, 1}, false},
        {"Interleaved", {4096}, true},
        {"OneLargeBuffer", {kToneFrames}, false},
    };
    return cases;
}

class AudioFileFormatTest : public AudioFileTestBase,
                            public ::testing::WithParamInterface<std::tuple<FormatCase, FeedCase>> {
};

TEST_P(AudioFileFormatTest, DecodesToTheToneThatWasWrittenAndNoWrongBufferNorAnythingAfterClose) {
    const auto& [format, feed] = GetParam();
    const fs::path path = dir_ / (std::string("take") + format.extension);
    const auto source = stereoTone(kToneFrames);

    auto file = create(path, format);
    ASSERT_TRUE(file);
    writeAll(*file, source, feed.sizes, feed.interleaved);
    // Full of loud samples, so any that slipped through would show in the decoded length.
    const std::pair<AudioFormat, const char*> wrongBuffers[] = {
        {AudioFormat(CommonFormat::pcmFormatFloat32, 44100, 2, false), "44100 Hz"},
        {AudioFormat(CommonFormat::pcmFormatFloat32, kRate, 1, false), "mono"},
        {AudioFormat(CommonFormat::pcmFormatInt16, kRate, 2, true), "16-bit integer"}};
    for (const auto& [wrong, mention] : wrongBuffers) {
        auto bad = PCMBuffer::make(wrong, 4096);
        ASSERT_TRUE(bad && bad->setFrameLength(4096));
        for (std::uint32_t b = 0; b < bad->bufferCount(); ++b) {
            std::memset(
                bad->rawData(b), 0x40,
                4096 * wrong.bytesPerSample() * (wrong.isInterleaved() ? wrong.channelCount() : 1));
        }
        const auto written = file->write(*bad);
        ASSERT_FALSE(written) << mention;
        EXPECT_NE(written.error().localizedDescription().find(mention), std::string::npos)
            << written.error().localizedDescription();
    }
    EXPECT_EQ(file->framesWritten(), std::int64_t(kToneFrames));
    const auto closed = file->close();
    ASSERT_TRUE(closed) << closed.error().localizedDescription();
    const auto sizeAfterClose = fs::file_size(path);
    const auto writtenLate = file->write(*bufferOf(source, 0, 4096, false));
    ASSERT_FALSE(writtenLate);
    EXPECT_FALSE(writtenLate.error().localizedDescription().empty());
    const auto closedAgain = file->close();
    ASSERT_FALSE(closedAgain);
    EXPECT_FALSE(closedAgain.error().localizedDescription().empty());
    EXPECT_EQ(file->framesWritten(), std::int64_t(kToneFrames));
    file.reset();
    EXPECT_EQ(fs::file_size(path), sizeAfterClose);

    const std::optional<DecodedAudio> decoded = decodeAudioFile(path);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->codecName, format.codec);
    EXPECT_NE(decoded->containerName.find(format.container), std::string::npos)
        << decoded->containerName;
    EXPECT_EQ(decoded->sampleFormatName, format.decodedSampleFormat);
    EXPECT_EQ(decoded->sampleRate, 48000);
    ASSERT_EQ(decoded->channels, 2);
    EXPECT_NEAR(double(decoded->bitRate), double(format.bitRate),
                format.bitRate * format.bitRateTolerance);

    // For AAC too: the edit list trims the encoder's priming and the padding of the last frame,
    // and the length every player shows is that of the audio.
    ASSERT_EQ(decoded->frames(), kToneFrames);
    EXPECT_NEAR(decoded->containerSeconds, double(kToneFrames) / kRate, 0.05);
    if (format.lossless) {
        // Rounding to the nearest 16-bit step: never more than half a step off, nothing shifted.
        for (int ch = 0; ch < 2; ++ch) {
            float worst = 0.0f;
            for (std::size_t i = 0; i < kToneFrames; ++i) {
                worst = std::max(worst, std::fabs(decoded->channelsData[ch][i] - source[ch][i]));
            }
            EXPECT_LE(worst, 0.5f / 32768.0f + 1e-7f) << "channel " << ch;
        }
    }

    const std::size_t from = kToneFrames / 6;
    const std::size_t to = kToneFrames - kToneFrames / 6;
    EXPECT_NEAR(levelDb(decoded->channelsData[0], from, to), 20 * std::log10(kLeftAmplitude),
                format.levelToleranceDb);
    EXPECT_NEAR(levelDb(decoded->channelsData[1], from, to), 20 * std::log10(kRightAmplitude),
                format.levelToleranceDb);

    const std::string bytes = readBytes(path);
    for (const Signature& signature : format.signatures) {
        EXPECT_EQ(bytes.substr(signature.offset, 4), signature.text);
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, AudioFileFormatTest,
                         ::testing::Combine(::testing::ValuesIn(formatCases()),
                                            ::testing::ValuesIn(feedCases())),
                         [](const auto& info) {
                             return std::string(std::get<0>(info.param).name) + "_" +
                                    std::get<1>(info.param).name;
                         });

// --- PCM bytes on disk --------------------------------------------------------------------------

// The container's own signature and codec are the format test's; here, the samples as stored,
// read back by a decoder of the codec the header names.
class AudioFilePcmLayoutTest : public AudioFileTestBase,
                               public ::testing::WithParamInterface<const char*> {};

TEST_P(AudioFilePcmLayoutTest, StoresRoundedClippedSamplesInTheContainersByteOrder) {
    struct Conversion {
        float input;
        std::int16_t stored;
    };
    const std::vector<Conversion> conversions = {
        {0.0f, 0},
        {0.5f, 16384},
        {-0.25f, -8192},
        {1.0f / 65536, 0},  // half a step rounds to even
        {3.0f / 65536, 2},  // one and a half steps round to even
        {-3.0f / 65536, -2},
        {0.6f / 32768, 1},
        {-0.4f / 32768, 0},
        {1.0f, 32767},  // full scale clips to the largest sample
        {-1.0f, -32768},
        {1.7f, 32767},
        {-4.0f, -32768},
        {std::numeric_limits<float>::infinity(), 32767},
        {-std::numeric_limits<float>::infinity(), -32768},
    };
    // Left takes the list in order and right in reverse, so the interleaving shows too.
    const std::size_t n = conversions.size();
    std::vector<std::vector<float>> source(2, std::vector<float>(n));
    for (std::size_t i = 0; i < n; ++i) {
        source[0][i] = conversions[i].input;
        source[1][i] = conversions[n - 1 - i].input;
    }

    const fs::path path = dir_ / GetParam();
    auto file = create(path, pcmSettings(path.extension() != ".wav"));  // AIFF is big-endian
    ASSERT_TRUE(file);
    writeAll(*file, source, {n}, false);
    ASSERT_TRUE(file->close());

    const auto decoded = decodeAudioFile(path);
    ASSERT_TRUE(decoded);
    ASSERT_EQ(decoded->frames(), n);
    for (std::size_t i = 0; i < n; ++i) {
        for (std::size_t ch = 0; ch < 2; ++ch) {
            const auto stored = std::int16_t(std::lround(decoded->channelsData[ch][i] * 32768.0f));
            const Conversion& expected = conversions[ch == 0 ? i : n - 1 - i];
            EXPECT_EQ(stored, expected.stored)
                << "input " << expected.input << ", frame " << i << ", channel " << ch;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Containers, AudioFilePcmLayoutTest,
                         ::testing::Values("take.wav", "take.aiff", "take.AIF"),
                         [](const auto& info) {
                             return fs::path(info.param).extension().string().substr(1);
                         });

// --- Refusals at creation -----------------------------------------------------------------------

struct CreationErrorCase {
    const char* name;
    const char* fileName;  // in the test folder; "locked/" is made read-only first
    AudioSettings settings;
    std::vector<std::string> mentions;  // a file name through a folder mentions its path too
};

void PrintTo(const CreationErrorCase& c, std::ostream* os) {
    *os << c.name;
}

const std::vector<CreationErrorCase>& creationErrorCases() {
    using i64 = std::int64_t;
    const AudioSettings le = pcmSettings(false), be = pcmSettings(true), aac = aacSettings();
    static const std::vector<CreationErrorCase> cases = {
        {"MissingFolder", "missing/take.wav", le, {"No such file or directory"}},
        {"ReadOnlyFolder", "locked/take.wav", le, {"Permission denied"}},
        {"UnknownExtension", "take.xyz", le, {"\u201c.xyz\u201d"}},
        {"NoExtension", "take", le, {"\u201ctake\u201d", "extension"}},
        {"MissingFormat", "take.wav", without(le, AVFormatIDKey), {"AVFormatIDKey"}},
        {"UnknownFormat",
         "take.m4a",
         with(aac, AVFormatIDKey, i64(fourCharCode(".mp3"))),
         {"\u201c.mp3\u201d", "not supported"}},
        {"AacInWav", "take.wav", aac, {"AAC", "\u201c.wav\u201d"}},
        {"AacInAiff", "take.aiff", aac, {"AAC", "\u201c.aiff\u201d"}},
        {"PcmInM4a", "take.m4a", le, {"PCM", "\u201c.m4a\u201d"}},
        {"BigEndianWav", "take.wav", be, {"big-endian", "\u201c.wav\u201d"}},
        {"LittleEndianAiff", "take.aiff", le, {"little-endian", "\u201c.aiff\u201d"}},
        {"TwentyFourBit", "take.wav", with(le, AVLinearPCMBitDepthKey, i64(24)), {"24-bit"}},
        {"FloatPcm", "take.wav", with(le, AVLinearPCMIsFloatKey, true), {"floating-point"}},
        {"NonInterleavedPcm",
         "take.aiff",
         with(be, AVLinearPCMIsNonInterleaved, true),
         {"non-interleaved"}},
        {"EndianFlagNotAFlag",
         "take.wav",
         with(le, AVLinearPCMIsBigEndianKey, 0.5),
         {"AVLinearPCMIsBigEndianKey"}},
        {"MissingRate", "take.wav", without(le, AVSampleRateKey), {"AVSampleRateKey"}},
        {"ZeroRate", "take.wav", with(le, AVSampleRateKey, 0.0), {"0 Hz"}},
        {"FractionalRate", "take.aiff", with(be, AVSampleRateKey, 44100.5), {"44100.5 Hz"}},
        {"RateNotANumber", "take.m4a", with(aac, AVSampleRateKey, true), {"AVSampleRateKey"}},
        {"RateAacCannotEncode", "take.m4a", with(aac, AVSampleRateKey, 47000.0), {"47000 Hz"}},
        {"MissingChannels",
         "take.m4a",
         without(aac, AVNumberOfChannelsKey),
         {"AVNumberOfChannelsKey"}},
        {"NoChannels", "take.wav", with(le, AVNumberOfChannelsKey, i64(0)), {"channel count 0"}},
        {"NegativeBitRate",
         "take.m4a",
         with(aac, AVEncoderBitRateKey, i64(-256000)),
         {"AVEncoderBitRateKey"}},
    };
    return cases;
}

bool canWriteAnywhere(const fs::path& lockedFolder) {
    return geteuid() == 0 || access(lockedFolder.c_str(), W_OK) == 0;
}

// Tries it for real: permissions say little to root.
bool canCreateFileIn(const fs::path& folder) {
    const fs::path probe = folder / ".bw-write-probe";
    const int fd = open(probe.c_str(), O_CREAT | O_EXCL | O_WRONLY, 0600);
    if (fd < 0) {
        return false;
    }
    close(fd);
    unlink(probe.c_str());
    return true;
}

class AudioFileCreationErrorTest : public AudioFileTestBase,
                                   public ::testing::WithParamInterface<CreationErrorCase> {};

TEST_P(AudioFileCreationErrorTest, FailsWithAReasonAndCreatesNothing) {
    const CreationErrorCase& c = GetParam();
    fs::path path = dir_ / c.fileName;
    const std::string fileName = c.fileName;
    if (fileName.starts_with("locked/")) {
        const fs::path locked = dir_ / "locked";
        ASSERT_TRUE(fs::create_directory(locked));
        ASSERT_EQ(chmod(locked.c_str(), 0500), 0);
        if (canWriteAnywhere(locked)) {
            // Root writes through permissions; sysfs refuses new files even to root.
            path = fs::path("/sys") / path.filename();
            if (canCreateFileIn("/sys")) {
                GTEST_SKIP() << "no folder here refuses new files to this user";
            }
        }
    }

    const auto created = AudioFile::createForWriting(path, c.settings);

    ASSERT_FALSE(created);
    const std::string& description = created.error().localizedDescription();
    EXPECT_FALSE(description.empty());
    EXPECT_NE(created.error().code(), 0);
    for (const std::string& mention : c.mentions) {
        EXPECT_NE(description.find(mention), std::string::npos)
            << "\"" << description << "\" should mention \"" << mention << "\"";
    }
    if (fileName.find('/') != std::string::npos) {
        EXPECT_NE(description.find(path.string()), std::string::npos) << description;
    }
    EXPECT_FALSE(fs::exists(path));
    EXPECT_FALSE(fs::exists(dir_ / "missing"));
}

INSTANTIATE_TEST_SUITE_P(Cases, AudioFileCreationErrorTest,
                         ::testing::ValuesIn(creationErrorCases()),
                         [](const auto& info) { return std::string(info.param.name); });

// --- Life cycle, per format ---------------------------------------------------------------------

class AudioFileLifecycleTest : public AudioFileTestBase,
                               public ::testing::WithParamInterface<FormatCase> {
protected:
    fs::path path() const { return dir_ / (std::string("take") + GetParam().extension); }
};

// What a crash leaves plays up to a second before it, and the container says how long it is: a
// WAV or AIFF header follows the data every second, an M4A's fragments last a second at most.
// The file as it is on disk while being written is checked too, and once destroyed without a
// close, the whole take, in place of an older and longer file.
TEST_P(AudioFileLifecycleTest, PlaysWhileOpenAndAfterACrashUpToTheLastSecondAndWhenDestroyed) {
    const FrameCount total = 120000;  // 2.5 s
    const auto source = stereoTone(total);
    const fs::path crashed = dir_ / (std::string("crashed") + GetParam().extension);
    const auto writeTake = [&](const fs::path& path) {
        auto file = create(path, GetParam());
        if (file) {
            writeAll(*file, source, {4096}, false);
        }
        return file;
    };
    EXPECT_EXIT(
        {
            const auto file = writeTake(crashed);
            std::raise(SIGKILL);
        },
        ::testing::KilledBySignal(SIGKILL), "");
    std::ofstream(path(), std::ios::binary) << std::string(1 << 20, 'x');
    auto file = writeTake(path());
    ASSERT_TRUE(file);

    const bool pcm = GetParam().lossless;
    const auto expectPlays = [&](const fs::path& path, double from, double to) {
        SCOPED_TRACE(path.filename().string());
        const auto decoded = decodeAudioFile(path);
        ASSERT_TRUE(decoded);
        const double seconds = double(decoded->frames()) / kRate;
        EXPECT_GE(seconds, from);
        EXPECT_LE(seconds, to);
        EXPECT_NEAR(decoded->containerSeconds, seconds, 0.05);
        if (pcm) {
            EXPECT_EQ(test::pcmHeaderSeconds(path), seconds) << "the header claims too much";
        }
        EXPECT_NEAR(levelDb(decoded->channelsData[0], 0, std::size_t(kRate)),
                    20 * std::log10(kLeftAmplitude), GetParam().levelToleranceDb);
        const std::string bytes = readBytes(path);
        for (const Signature& signature : GetParam().signatures) {
            EXPECT_EQ(bytes.substr(signature.offset, 4), signature.text);
        }
    };
    // AAC's priming is only trimmed once the file is closed.
    expectPlays(crashed, 1.5, 2.55);
    expectPlays(path(), 1.5, 2.55);
    file.reset();
    EXPECT_LT(fs::file_size(path()), 1u << 20);
    expectPlays(path(), 2.5, 2.5);
}

// A full disk must surface as an error naming the file, from whichever call meets it first.
TEST_P(AudioFileLifecycleTest, ReportsAFullDisk) {
    if (!fs::exists("/dev/full")) {
        GTEST_SKIP() << "no /dev/full to stand in for a full disk";
    }
    fs::create_symlink("/dev/full", path());
    std::string description;
    auto created = AudioFile::createForWriting(path(), GetParam().settings);
    if (!created) {
        description = created.error().localizedDescription();
    } else {
        AudioFile& file = *created.value();
        const auto source = stereoTone(4096);
        const auto buffer = bufferOf(source, 0, 4096, false);
        for (int i = 0; i < 1000 && description.empty(); ++i) {
            const auto written = file.write(*buffer);
            if (!written) {
                description = written.error().localizedDescription();
            }
        }
        if (description.empty()) {
            const auto closed = file.close();
            ASSERT_FALSE(closed);
            description = closed.error().localizedDescription();
        }
    }
    EXPECT_NE(description.find("No space left on device"), std::string::npos) << description;
    EXPECT_NE(description.find(path().string()), std::string::npos) << description;
}

INSTANTIATE_TEST_SUITE_P(Formats, AudioFileLifecycleTest, ::testing::ValuesIn(formatCases()),
                         [](const auto& info) { return std::string(info.param.name); });

// --- An AIFF at the end of what its header can tell ------------------------------------------

class AudioFileSizeLimitTest : public AudioFileTestBase {};

// The recording ends as on a full disk, but with a reason of its own and a complete file holding
// every frame that was accepted, up to the last buffer that fitted.
TEST_F(AudioFileSizeLimitTest, AnAiffEndsCompleteWithAReasonAtItsLimit) {
    constexpr std::uint64_t kLimit = 200000;
    const fs::path path = dir_ / "take.aiff";
    auto file = create(path, pcmSettings(true));
    ASSERT_TRUE(file);
    file->setHeaderSizeLimit(kLimit);
    const auto source = stereoTone(kToneFrames);
    std::optional<AVError> refused;
    for (std::size_t done = 0; done < kToneFrames && !refused; done += 4096) {
        const auto written = file->write(
            *bufferOf(source, done, std::min<std::size_t>(4096, kToneFrames - done), false));
        if (!written) {
            refused = written.error();
        }
    }
    ASSERT_TRUE(refused) << "1.5 s of stereo is past the limit";
    EXPECT_EQ(refused->code(), AudioFile::kSizeLimitReached);
    EXPECT_EQ(refused->localizedDescription(),
              "Recording stopped: AIFF files can\u2019t grow past 4 GB. Choose WAV or M4A for "
              "longer recordings.");
    EXPECT_FALSE(file->write(*bufferOf(source, 0, 4096, false)));
    const auto frames = std::size_t(file->framesWritten());
    file.reset();

    const std::uint64_t form = fs::file_size(path) - 8;
    EXPECT_LE(form, kLimit);
    EXPECT_GT(form + 4096 * 4, kLimit) << "a buffer that fitted was refused";
    const auto decoded = decodeAudioFile(path);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->frames(), frames);
    EXPECT_EQ(test::pcmHeaderSeconds(path), double(frames) / kRate);
}

// --- AAC timing ---------------------------------------------------------------------------------

class AudioFileAacTest : public AudioFileTestBase {};

// The encoder's priming delay must be trimmed by the container, not left in the audio: a tone
// that starts after silence has to start at the same frame once decoded.
TEST_F(AudioFileAacTest, KeepsTheTimingOfTheAudio) {
    constexpr std::size_t kOnset = 12000;
    constexpr std::size_t kTotal = 24000;
    std::vector<std::vector<float>> source(2, std::vector<float>(kTotal, 0.0f));
    const auto burst = test::sine(kToneHz, kRate, kTotal - kOnset, 0.5f);
    for (auto& channel : source) {
        std::copy(burst.begin(), burst.end(), channel.begin() + kOnset);
    }
    const fs::path path = dir_ / "take.m4a";
    auto file = create(path, aacSettings());
    ASSERT_TRUE(file);
    writeAll(*file, source, {4096}, false);
    ASSERT_TRUE(file->close());

    const auto decoded = decodeAudioFile(path);
    ASSERT_TRUE(decoded);
    ASSERT_EQ(decoded->frames(), kTotal);
    // Onset: the first 48-frame window (one cycle of the tone) with at least half the tone's RMS.
    // The priming delay would move it by 1024 frames; pre-echo only by a short block.
    const double toneRms = 20 * std::log10(0.5 / std::sqrt(2.0));
    std::size_t onset = 0;
    const auto& left = decoded->channelsData[0];
    for (std::size_t at = 0; at + 48 <= left.size(); ++at) {
        if (test::rmsDb(std::span<const float>(left).subspan(at, 48)) > toneRms - 6.0) {
            onset = at;
            break;
        }
    }
    EXPECT_NEAR(double(onset), double(kOnset), 128.0);
}

}  // namespace
}  // namespace bw
