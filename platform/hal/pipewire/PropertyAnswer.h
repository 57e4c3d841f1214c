#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/hal/AudioHardwareConstants.h"
#include "platform/hal/AudioStreamBasicDescription.h"

namespace bw::pipewire {

/// A property's value as a part of the layer answers it, before the facade copies it out: a
/// string, or bytes (an array of object ids when `isArray`), or a status other than 0.
struct PropertyAnswer {
    OSStatus status = 0;
    std::vector<std::uint8_t> bytes;
    std::optional<std::string> text;
    bool isArray = false;

    template <typename T>
    void value(const T& v) {
        const auto* p = reinterpret_cast<const std::uint8_t*>(&v);
        bytes.assign(p, p + sizeof v);
    }
    void array(const std::vector<AudioObjectID>& list) {
        isArray = true;
        const auto* p = reinterpret_cast<const std::uint8_t*>(list.data());
        bytes.assign(p, p + list.size() * sizeof(AudioObjectID));
    }
};

/// The format of our streams and of the graph: 32-bit float, interleaved.
inline AudioStreamBasicDescription interleavedFloat(double rate, std::uint32_t channels) {
    AudioStreamBasicDescription asbd;
    asbd.mSampleRate = rate;
    asbd.mFormatID = kAudioFormatLinearPCM;
    asbd.mFormatFlags = kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked;
    asbd.mBitsPerChannel = 32;
    asbd.mChannelsPerFrame = channels;
    asbd.mBytesPerFrame = 4 * channels;
    asbd.mBytesPerPacket = asbd.mBytesPerFrame;
    asbd.mFramesPerPacket = 1;
    return asbd;
}

}  // namespace bw::pipewire
