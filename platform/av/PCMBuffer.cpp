#include "platform/av/PCMBuffer.h"

#include <cstring>

namespace bw {

PCMBuffer::PCMBuffer(const AudioFormat& format, FrameCount capacity)
    : format_(format), capacity_(capacity) {}

std::shared_ptr<PCMBuffer> PCMBuffer::make(const AudioFormat& format, FrameCount capacity) {
    const std::uint32_t sampleBytes = format.bytesPerSample();
    if (sampleBytes == 0 || format.channelCount() == 0) {
        return nullptr;
    }
    std::shared_ptr<PCMBuffer> buffer(new PCMBuffer(format, capacity));
    const std::size_t blocks = format.isInterleaved() ? 1 : format.channelCount();
    const std::size_t blockBytes = std::size_t(capacity) * sampleBytes *
                                   (format.isInterleaved() ? format.channelCount() : 1);
    // Round each block up to 64 bytes so every channel starts on its own cache line.
    const std::size_t stride = (blockBytes + 63) / 64 * 64;
    buffer->storage_.reset(new std::uint8_t[stride * blocks + 64]());
    auto base = reinterpret_cast<std::uintptr_t>(buffer->storage_.get());
    auto* aligned = reinterpret_cast<std::uint8_t*>((base + 63) / 64 * 64);
    buffer->channels_.resize(blocks);
    for (std::size_t i = 0; i < blocks; ++i) {
        buffer->channels_[i] = aligned + i * stride;
    }
    return buffer;
}

std::shared_ptr<PCMBuffer> PCMBuffer::wrapNoCopy(const AudioFormat& format,
                                                 const AudioBufferList& list) {
    const std::uint32_t sampleBytes = format.bytesPerSample();
    if (sampleBytes == 0 || list.mBuffers == nullptr) {
        return nullptr;
    }
    const std::uint32_t expectedBuffers = format.isInterleaved() ? 1 : format.channelCount();
    const std::uint32_t channelsPerBuffer = format.isInterleaved() ? format.channelCount() : 1;
    if (list.mNumberBuffers != expectedBuffers) {
        return nullptr;
    }
    const std::uint32_t byteSize = list.mBuffers[0].mDataByteSize;
    const std::uint32_t bytesPerFrame = sampleBytes * channelsPerBuffer;
    for (std::uint32_t i = 0; i < list.mNumberBuffers; ++i) {
        const AudioBuffer& b = list.mBuffers[i];
        if (b.mNumberChannels != channelsPerBuffer || b.mDataByteSize != byteSize ||
            (b.mData == nullptr && byteSize != 0)) {
            return nullptr;
        }
    }
    const FrameCount frames = byteSize / bytesPerFrame;
    std::shared_ptr<PCMBuffer> buffer(new PCMBuffer(format, frames));
    buffer->length_ = frames;
    buffer->channels_.resize(list.mNumberBuffers);
    for (std::uint32_t i = 0; i < list.mNumberBuffers; ++i) {
        buffer->channels_[i] = list.mBuffers[i].mData;
    }
    return buffer;
}

bool PCMBuffer::setFrameLength(FrameCount length) {
    if (length > capacity_) {
        return false;
    }
    length_ = length;
    return true;
}

float* const* PCMBuffer::floatChannelData() const {
    if (format_.commonFormat() != CommonFormat::pcmFormatFloat32 || channels_.empty()) {
        return nullptr;
    }
    return reinterpret_cast<float* const*>(channels_.data());
}

std::int16_t* const* PCMBuffer::int16ChannelData() const {
    if (format_.commonFormat() != CommonFormat::pcmFormatInt16 || channels_.empty()) {
        return nullptr;
    }
    return reinterpret_cast<std::int16_t* const*>(channels_.data());
}

}  // namespace bw
