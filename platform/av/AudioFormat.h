#pragma once

#include <cstdint>
#include <optional>

#include "platform/hal/AudioStreamBasicDescription.h"

namespace bw {

using FrameCount = std::uint32_t;
using ChannelCount = std::uint32_t;

/// The sample type of a PCM format.
enum class CommonFormat : int {
    otherFormat = 0,
    pcmFormatFloat32 = 1,
    pcmFormatFloat64 = 2,
    pcmFormatInt16 = 3,
    pcmFormatInt32 = 4,
};

/// A PCM format: sample type, rate, channel count and layout. A plain value.
///
/// The standard format is 32-bit float, non-interleaved (one buffer per channel): the format the
/// graph renders in.
class AudioFormat {
public:
    AudioFormat(CommonFormat commonFormat, double sampleRate, ChannelCount channelCount,
                bool interleaved);

    /// Float32, non-interleaved; nothing when the rate is not above 0 or there are no channels.
    static std::optional<AudioFormat> standard(double sampleRate, ChannelCount channelCount);

    /// The format of a stream description; nothing when it has no rate or no channels, or is not
    /// linear PCM. Unusual PCM layouts (24-bit, unpacked) give `CommonFormat::otherFormat`.
    static std::optional<AudioFormat> fromStreamDescription(const AudioStreamBasicDescription& asbd);

    CommonFormat commonFormat() const { return commonFormat_; }
    double sampleRate() const { return sampleRate_; }
    ChannelCount channelCount() const { return channelCount_; }
    bool isInterleaved() const { return interleaved_; }
    bool isStandard() const;

    /// Bytes of one sample of one channel; 0 for `otherFormat`.
    std::uint32_t bytesPerSample() const;

    /// A copy of the stream description (for `otherFormat`, the one it was made from).
    AudioStreamBasicDescription streamDescription() const;

    friend bool operator==(const AudioFormat&, const AudioFormat&) = default;

private:
    CommonFormat commonFormat_;
    double sampleRate_;
    ChannelCount channelCount_;
    bool interleaved_;
    std::optional<AudioStreamBasicDescription> original_;
};

}  // namespace bw
