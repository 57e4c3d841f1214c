#include "platform/av/AudioInputNode.h"

#include <algorithm>

#include "platform/av/AudioEngine.h"
#include "platform/av/VectorOps.h"
#include "platform/av/detail/DeviceFormat.h"
#include "platform/av/detail/TapSlot.h"
#include "platform/hal/AudioHardware.h"

namespace bw {

AudioInputNode::AudioInputNode(std::shared_ptr<AudioHardware> hardware)
    : hardware_(std::move(hardware)), tap_(std::make_unique<detail::TapSlot>()) {}

AudioInputNode::~AudioInputNode() = default;

bool AudioInputNode::hasTap() const { return tap_->current() != nullptr; }

AudioUnit* AudioInputNode::audioUnit() { return hardware_ ? this : nullptr; }

OSStatus AudioInputNode::setProperty(std::uint32_t propertyID, std::uint32_t, std::uint32_t,
                                     const void* data, std::uint32_t size) {
    if (propertyID != kAudioOutputUnitProperty_CurrentDevice) {
        return kAudioUnitErr_InvalidProperty;
    }
    if (size != sizeof(AudioDeviceID) || data == nullptr) {
        return kAudioHardwareBadPropertySizeError;
    }
    AudioDeviceID device = 0;
    std::copy_n(static_cast<const std::uint8_t*>(data), sizeof device,
                reinterpret_cast<std::uint8_t*>(&device));
    auto format = detail::readDeviceStreamFormat(*hardware_, device, kAudioObjectPropertyScopeInput);
    if (!format || format->mChannelsPerFrame == 0) {
        return kAudioHardwareBadDeviceError;
    }
    device_ = device;
    return 0;
}

AudioDeviceID AudioInputNode::device() const {
    if (!hardware_) {
        return 0;
    }
    return device_ != 0 ? device_
                        : detail::readSystemDevice(*hardware_, kAudioHardwarePropertyDefaultInputDevice);
}

AudioFormat AudioInputNode::inputFormatForBus(std::uint32_t) const {
    const AudioFormat none(CommonFormat::pcmFormatFloat32, 0, 0, false);
    const AudioDeviceID id = device();
    if (id == 0) {
        return none;
    }
    auto asbd = detail::readDeviceStreamFormat(*hardware_, id, kAudioObjectPropertyScopeInput);
    if (!asbd || !(asbd->mSampleRate > 0) || asbd->mChannelsPerFrame == 0) {
        return none;
    }
    return *AudioFormat::standard(asbd->mSampleRate, asbd->mChannelsPerFrame);
}

bool AudioInputNode::installTap(std::uint32_t bus, FrameCount bufferSize,
                                const AudioFormat& format, AudioTapBlock block,
                                AudioTapDropHandler onDrop) {
    return bus == 0 && tap_->install(bufferSize, format, std::move(block), std::move(onDrop));
}

void AudioInputNode::removeTap(std::uint32_t bus) {
    if (bus != 0) {
        return;
    }
    tap_->remove([this] {
        if (engine() != nullptr) {
            engine()->waitForInputCycle();
        }
    });
}

void AudioInputNode::deliver(const AudioBufferList& input, const AudioFormat& format) {
    detail::NodeTap* tap = tap_->current();
    if (tap == nullptr || input.mNumberBuffers == 0 || input.mBuffers == nullptr) {
        return;
    }
    const ChannelCount channels = format.channelCount();
    if (channels != tap->format().channelCount()) {
        return;
    }
    const std::uint32_t perBuffer = format.isInterleaved() ? channels : 1;
    const std::uint32_t bytesPerFrame = format.bytesPerSample() * perBuffer;
    if (bytesPerFrame == 0) {
        return;
    }
    const FrameCount frames = input.mBuffers[0].mDataByteSize / bytesPerFrame;
    if (scratch_.size() != channels || scratch_[0].size() < frames) {
        scratch_.assign(channels, std::vector<float>(std::max<FrameCount>(frames, 4096)));
        scratchPointers_.clear();
        for (auto& channel : scratch_) {
            scratchPointers_.push_back(channel.data());
        }
    }
    for (ChannelCount c = 0; c < channels; ++c) {
        const std::uint32_t index = format.isInterleaved() ? 0 : c;
        if (index >= input.mNumberBuffers) {
            return;
        }
    }
    switch (format.commonFormat()) {
        case CommonFormat::pcmFormatFloat32:
            if (format.isInterleaved()) {
                vec::deinterleave(static_cast<const float*>(input.mBuffers[0].mData),
                                  scratchPointers_.data(), channels, frames);
            } else {
                for (ChannelCount c = 0; c < channels; ++c) {
                    std::copy_n(static_cast<const float*>(input.mBuffers[c].mData), frames,
                                scratchPointers_[c]);
                }
            }
            break;
        case CommonFormat::pcmFormatInt16:
            for (ChannelCount c = 0; c < channels; ++c) {
                const std::uint32_t index = format.isInterleaved() ? 0 : c;
                const std::uint32_t stride = format.isInterleaved() ? channels : 1;
                const auto* in = static_cast<const std::int16_t*>(input.mBuffers[index].mData) +
                                 (format.isInterleaved() ? c : 0);
                for (FrameCount i = 0; i < frames; ++i) {
                    scratchPointers_[c][i] = float(in[std::size_t(i) * stride]) / 32768.0f;
                }
            }
            break;
        default:
            return;
    }
    tap->push(scratchPointers_.data(), frames);
}

}  // namespace bw
