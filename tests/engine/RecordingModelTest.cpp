#include <gtest/gtest.h>

#include <unordered_set>

#include "engine/RecordingFormat.h"
#include "engine/RecordingSource.h"
#include "platform/hal/AudioHardwareConstants.h"

namespace bw {
namespace {

TEST(RecordingFormatTest, OnlyTheExactRawValuesMakeAFormat) {
    const std::vector<std::pair<std::string, std::optional<RecordingFormat>>> cases = {
        {"m4a", RecordingFormat::m4a},   {"wav", RecordingFormat::wav},
        {"aiff", RecordingFormat::aiff}, {"aif", std::nullopt},
        {"M4A", std::nullopt},           {"", std::nullopt},
        {" wav", std::nullopt}};
    for (const auto& [raw, expected] : cases) {
        EXPECT_EQ(RecordingFormat::fromRawValue(raw), expected) << '"' << raw << '"';
    }
    std::vector<std::string> raws;
    for (auto format : RecordingFormat::allCases()) {
        raws.push_back(format.rawValue());
        EXPECT_EQ(RecordingFormat::fromRawValue(format.rawValue()), format);
    }
    EXPECT_EQ(raws, (std::vector<std::string>{"m4a", "wav", "aiff"}));
    EXPECT_EQ(RecordingFormat(RecordingFormat::wav).displayName(),
              "Uncompressed — very large files (WAV, .wav)");
}

TEST(RecordingFormatTest, FileSettingsCarryExactlyTheKeysOfEachFormat) {
    struct Case {
        RecordingFormat format;
        AudioSettings expected;
    };
    const std::vector<Case> cases = {
        {RecordingFormat::m4a,
         {{AVFormatIDKey, std::int64_t(kAudioFormatMPEG4AAC)},
          {AVSampleRateKey, 48000.0},
          {AVNumberOfChannelsKey, std::int64_t(2)},
          {AVEncoderBitRateKey, std::int64_t(256000)}}},
        {RecordingFormat::wav,
         {{AVFormatIDKey, std::int64_t(kAudioFormatLinearPCM)},
          {AVSampleRateKey, 48000.0},
          {AVNumberOfChannelsKey, std::int64_t(2)},
          {AVLinearPCMBitDepthKey, std::int64_t(16)},
          {AVLinearPCMIsFloatKey, false},
          {AVLinearPCMIsBigEndianKey, false},
          {AVLinearPCMIsNonInterleaved, false}}},
        {RecordingFormat::aiff,
         {{AVFormatIDKey, std::int64_t(kAudioFormatLinearPCM)},
          {AVSampleRateKey, 48000.0},
          {AVNumberOfChannelsKey, std::int64_t(2)},
          {AVLinearPCMBitDepthKey, std::int64_t(16)},
          {AVLinearPCMIsFloatKey, false},
          {AVLinearPCMIsBigEndianKey, true},
          {AVLinearPCMIsNonInterleaved, false}}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.format.fileSettings(48000.0, 2), c.expected) << c.format.rawValue();
    }
}

TEST(RecordingSourceTest, IdentityRulesGiveTheDocumentedIds) {
    EXPECT_EQ(RecordingSource::systemAudio().id, "system");
    EXPECT_EQ(RecordingSource::systemAudio().name, "System Audio");
    EXPECT_FALSE(RecordingSource::systemAudio().isActive);
    EXPECT_EQ(RecordingSource::application(42, "org.example.Player", "Player", true).id,
              "app:org.example.Player");
    EXPECT_EQ(RecordingSource::application(42, std::nullopt, "helper", false).id, "app:pid:42");
    EXPECT_EQ(RecordingSource::microphone("alsa_input.usb", "USB Mic").id, "mic:alsa_input.usb");
    EXPECT_TRUE(RecordingSource::microphone("x", "X").isActive);
}

TEST(RecordingSourceTest, EqualityAndHashTakeInEveryField) {
    const auto player = RecordingSource::application(42, "org.example.Player", "Player", false);
    struct Case {
        const char* what;
        RecordingSource other;
        bool equal;
    };
    const std::vector<Case> cases = {
        {"same values", RecordingSource::application(42, "org.example.Player", "Player", false),
         true},
        {"relaunched under a new pid",
         RecordingSource::application(43, "org.example.Player", "Player", false), false},
        {"started playing", RecordingSource::application(42, "org.example.Player", "Player", true),
         false},
        {"renamed", RecordingSource::application(42, "org.example.Player", "Player 2", false),
         false},
        {"bundle ID lost",
         RecordingSource{player.id, RecordingSource::App{42, std::nullopt}, "Player", false},
         false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(player == c.other, c.equal) << c.what;
        EXPECT_EQ(player.id, c.other.id) << "identity survives: " << c.what;
        if (c.equal) {
            EXPECT_EQ(hashValue(player), hashValue(c.other)) << c.what;
        }
    }
    // Kinds hash by position first: the three empty-payload-like kinds all differ.
    std::unordered_set<std::size_t> kindHashes = {
        hashValue(RecordingSource::Kind{RecordingSource::SystemAudio{}}),
        hashValue(RecordingSource::Kind{RecordingSource::App{0, std::nullopt}}),
        hashValue(RecordingSource::Kind{RecordingSource::Microphone{""}})};
    EXPECT_EQ(kindHashes.size(), 3u);
    std::unordered_set<RecordingSource> set = {player, cases[1].other, cases[2].other, player};
    EXPECT_EQ(set.size(), 3u);
}

}  // namespace
}  // namespace bw
