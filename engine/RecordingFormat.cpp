#include "engine/RecordingFormat.h"

#include "platform/base/Localization.h"
#include "platform/hal/AudioHardwareConstants.h"

namespace bw {

std::optional<RecordingFormat> RecordingFormat::fromRawValue(std::string_view raw) {
    for (RecordingFormat format : allCases()) {
        if (format.rawValue() == raw) {
            return format;
        }
    }
    return std::nullopt;
}

std::string RecordingFormat::rawValue() const {
    switch (value_) {
        case m4a:
            return "m4a";
        case wav:
            return "wav";
        case aiff:
            return "aiff";
    }
    return "m4a";
}

std::string RecordingFormat::displayName() const {
    switch (value_) {
        case m4a:
            return localized("RecordingFormat", "Normal — smaller files (AAC, .m4a)");
        case wav:
            return localized("RecordingFormat", "Uncompressed — very large files (WAV, .wav)");
        case aiff:
            return localized("RecordingFormat", "Uncompressed — very large files (AIFF, .aiff)");
    }
    return {};
}

AudioSettings RecordingFormat::fileSettings(double sampleRate, std::uint32_t channelCount) const {
    AudioSettings settings;
    settings[AVSampleRateKey] = sampleRate;
    settings[AVNumberOfChannelsKey] = std::int64_t(channelCount);
    if (value_ == m4a) {
        settings[AVFormatIDKey] = std::int64_t(kAudioFormatMPEG4AAC);
        settings[AVEncoderBitRateKey] = std::int64_t(256000);
        return settings;
    }
    settings[AVFormatIDKey] = std::int64_t(kAudioFormatLinearPCM);
    settings[AVLinearPCMBitDepthKey] = std::int64_t(16);
    settings[AVLinearPCMIsFloatKey] = false;
    settings[AVLinearPCMIsBigEndianKey] = value_ == aiff;
    settings[AVLinearPCMIsNonInterleaved] = false;
    return settings;
}

}  // namespace bw
