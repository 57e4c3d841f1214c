#include "platform/av/AudioFormat.h"

#include "platform/hal/AudioHardwareConstants.h"

namespace bw {

AudioFormat::AudioFormat(CommonFormat commonFormat, double sampleRate, ChannelCount channelCount,
                         bool interleaved)
    : commonFormat_(commonFormat),
      sampleRate_(sampleRate),
      channelCount_(channelCount),
      interleaved_(interleaved) {}

std::optional<AudioFormat> AudioFormat::standard(double sampleRate, ChannelCount channelCount) {
    if (!(sampleRate > 0) || channelCount == 0) {
        return std::nullopt;
    }
    return AudioFormat(CommonFormat::pcmFormatFloat32, sampleRate, channelCount, false);
}

std::optional<AudioFormat> AudioFormat::fromStreamDescription(
    const AudioStreamBasicDescription& asbd) {
    if (!(asbd.mSampleRate > 0) || asbd.mChannelsPerFrame == 0 ||
        asbd.mFormatID != kAudioFormatLinearPCM) {
        return std::nullopt;
    }
    const bool isFloat = asbd.mFormatFlags & kAudioFormatFlagIsFloat;
    const bool isSigned = asbd.mFormatFlags & kAudioFormatFlagIsSignedInteger;
    const bool bigEndian = asbd.mFormatFlags & kAudioFormatFlagIsBigEndian;
    const bool interleaved = !(asbd.mFormatFlags & kAudioFormatFlagIsNonInterleaved);
    const std::uint32_t channelsPerBuffer = interleaved ? asbd.mChannelsPerFrame : 1;
    const bool packed = asbd.mBitsPerChannel % 8 == 0 &&
                        asbd.mBytesPerFrame == asbd.mBitsPerChannel / 8 * channelsPerBuffer;

    CommonFormat common = CommonFormat::otherFormat;
    if (packed && !bigEndian) {
        if (isFloat && asbd.mBitsPerChannel == 32) {
            common = CommonFormat::pcmFormatFloat32;
        } else if (isFloat && asbd.mBitsPerChannel == 64) {
            common = CommonFormat::pcmFormatFloat64;
        } else if (isSigned && asbd.mBitsPerChannel == 16) {
            common = CommonFormat::pcmFormatInt16;
        } else if (isSigned && asbd.mBitsPerChannel == 32) {
            common = CommonFormat::pcmFormatInt32;
        }
    }
    AudioFormat format(common, asbd.mSampleRate, asbd.mChannelsPerFrame, interleaved);
    if (common == CommonFormat::otherFormat) {
        format.original_ = asbd;
    }
    return format;
}

bool AudioFormat::isStandard() const {
    return commonFormat_ == CommonFormat::pcmFormatFloat32 && !interleaved_;
}

std::uint32_t AudioFormat::bytesPerSample() const {
    switch (commonFormat_) {
        case CommonFormat::pcmFormatFloat32:
        case CommonFormat::pcmFormatInt32:
            return 4;
        case CommonFormat::pcmFormatFloat64:
            return 8;
        case CommonFormat::pcmFormatInt16:
            return 2;
        case CommonFormat::otherFormat:
            break;
    }
    return 0;
}

AudioStreamBasicDescription AudioFormat::streamDescription() const {
    if (original_) {
        AudioStreamBasicDescription copy = *original_;
        copy.mSampleRate = sampleRate_;
        return copy;
    }
    AudioStreamBasicDescription asbd;
    asbd.mSampleRate = sampleRate_;
    asbd.mFormatID = kAudioFormatLinearPCM;
    asbd.mFormatFlags = kAudioFormatFlagIsPacked;
    if (commonFormat_ == CommonFormat::pcmFormatFloat32 ||
        commonFormat_ == CommonFormat::pcmFormatFloat64) {
        asbd.mFormatFlags |= kAudioFormatFlagIsFloat;
    } else {
        asbd.mFormatFlags |= kAudioFormatFlagIsSignedInteger;
    }
    if (!interleaved_) {
        asbd.mFormatFlags |= kAudioFormatFlagIsNonInterleaved;
    }
    const std::uint32_t perBuffer = interleaved_ ? channelCount_ : 1;
    asbd.mBitsPerChannel = bytesPerSample() * 8;
    asbd.mBytesPerFrame = bytesPerSample() * perBuffer;
    asbd.mBytesPerPacket = asbd.mBytesPerFrame;
    asbd.mFramesPerPacket = 1;
    asbd.mChannelsPerFrame = channelCount_;
    return asbd;
}

}  // namespace bw
