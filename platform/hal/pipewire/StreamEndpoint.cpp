#include "platform/hal/pipewire/StreamEndpoint.h"

#include <spa/param/audio/format-utils.h>

#include <algorithm>
#include <cstring>

namespace bw::pipewire {

StreamEndpoint::StreamEndpoint(bool playback, std::string name, std::uint32_t channels, double rate,
                               std::string target, bool autoconnect)
    : name_(std::move(name)),
      target_(std::move(target)),
      autoconnect_(autoconnect),
      playback_(playback),
      channels_(channels),
      rate_(rate) {
    if (!playback) {
        ring_ = std::make_unique<SampleRing>(std::size_t(channels) * std::size_t(rate) * 2);
    }
}

std::shared_ptr<StreamEndpoint> StreamEndpoint::make(pw_core* core, bool playback,
                                                     const std::string& name,
                                                     std::uint32_t channels, double rate,
                                                     const std::string& target, bool autoconnect) {
    auto endpoint =
        std::make_shared<StreamEndpoint>(playback, name, channels, rate, target, autoconnect);
    if (!endpoint->connect(core)) {
        return nullptr;
    }
    return endpoint;
}

const pw_stream_events& StreamEndpoint::streamEvents() {
    static const pw_stream_events events = [] {
        pw_stream_events e{};
        e.version = PW_VERSION_STREAM_EVENTS;
        e.process = &StreamEndpoint::onProcess;
        return e;
    }();
    return events;
}

bool StreamEndpoint::connect(pw_core* core) {
    pw_properties* props = pw_properties_new(
        PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, playback_ ? "Playback" : "Capture",
        PW_KEY_MEDIA_ROLE, "Production", PW_KEY_NODE_NAME, name_.c_str(), PW_KEY_NODE_DESCRIPTION,
        "Brightwave Record", PW_KEY_APP_NAME, "Brightwave Record", PW_KEY_NODE_GROUP,
        "brightwave-recording", nullptr);
    if (!target_.empty()) {
        pw_properties_set(props, PW_KEY_TARGET_OBJECT, target_.c_str());
    }
    if (!autoconnect_) {
        pw_properties_set(props, PW_KEY_NODE_AUTOCONNECT, "false");
        pw_properties_set(props, PW_KEY_NODE_WANT_DRIVER, "true");
    }
    stream_ = pw_stream_new(core, name_.c_str(), props);
    if (stream_ == nullptr) {
        return false;
    }
    pw_stream_add_listener(stream_, &listener_, &streamEvents(), this);
    std::uint8_t buffer[1024];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer, sizeof buffer);
    spa_audio_info_raw info{};
    info.format = SPA_AUDIO_FORMAT_F32;
    info.channels = channels_;
    info.rate = std::uint32_t(rate_);
    if (channels_ == 2) {
        info.position[0] = SPA_AUDIO_CHANNEL_FL;
        info.position[1] = SPA_AUDIO_CHANNEL_FR;
    } else if (channels_ == 1) {
        info.position[0] = SPA_AUDIO_CHANNEL_MONO;
    } else {
        info.flags = SPA_AUDIO_FLAG_UNPOSITIONED;
    }
    const spa_pod* params[1] = {spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info)};
    const auto flags = pw_stream_flags(PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_RT_PROCESS |
                                       (autoconnect_ ? PW_STREAM_FLAG_AUTOCONNECT : 0));
    if (pw_stream_connect(stream_, playback_ ? PW_DIRECTION_OUTPUT : PW_DIRECTION_INPUT, PW_ID_ANY,
                          flags, params, 1) < 0) {
        spa_hook_remove(&listener_);
        pw_stream_destroy(stream_);
        stream_ = nullptr;
        return false;
    }
    return true;
}

void StreamEndpoint::destroy() {
    if (stream_ != nullptr) {
        spa_hook_remove(&listener_);
        pw_stream_destroy(stream_);  // waits for the realtime thread to let go
        stream_ = nullptr;
    }
}

std::uint32_t StreamEndpoint::nodeID() const {
    return stream_ != nullptr ? pw_stream_get_node_id(stream_) : SPA_ID_INVALID;
}

void StreamEndpoint::startRendering(AudioDeviceIOBlock block) {
    block_ = std::move(block);
    rendering_.store(true, std::memory_order_release);
}

void StreamEndpoint::renderInto(float* buffer, std::uint32_t frames) {
    AudioBuffer audio{channels_, frames * 4 * channels_, buffer};
    AudioBufferList list{1, &audio};
    const AudioTimeStamp now{sampleTime_, 0};
    block_(&now, nullptr, nullptr, &list, &now);
    sampleTime_ += frames;
}

void StreamEndpoint::startConsuming() {
    consuming_.store(true, std::memory_order_release);
}

void StreamEndpoint::stopIO() {
    rendering_.store(false);
    consuming_.store(false);
}

// Realtime: runs on the stream's data thread. Capture copies into a preallocated ring and posts
// a semaphore; playback renders through the IO block (itself realtime-safe) straight into the
// buffer. Nothing here allocates, locks, logs or waits.
void StreamEndpoint::onProcess(void* data) {
    auto* endpoint = static_cast<StreamEndpoint*>(data);
    pw_buffer* buffer = pw_stream_dequeue_buffer(endpoint->stream_);
    if (buffer == nullptr) {
        return;
    }
    spa_data& d = buffer->buffer->datas[0];
    if (d.data != nullptr) {
        const std::uint32_t stride = 4 * endpoint->channels_;
        if (endpoint->playback_) {
            std::uint32_t frames = d.maxsize / stride;
            if (buffer->requested > 0) {
                frames = std::min<std::uint32_t>(frames, std::uint32_t(buffer->requested));
            }
            auto* out = static_cast<float*>(d.data);
            std::memset(out, 0, std::size_t(frames) * stride);
            if (endpoint->rendering_.load(std::memory_order_acquire)) {
                AudioBuffer audio{endpoint->channels_, frames * stride, out};
                AudioBufferList list{1, &audio};
                const AudioTimeStamp now{endpoint->sampleTime_, 0};
                endpoint->block_(&now, nullptr, nullptr, &list, &now);
            }
            endpoint->sampleTime_ += frames;
            d.chunk->offset = 0;
            d.chunk->stride = std::int32_t(stride);
            d.chunk->size = frames * stride;
        } else if (endpoint->consuming_.load(std::memory_order_acquire)) {
            const std::uint32_t offset = std::min(d.chunk->offset, d.maxsize);
            const std::uint32_t size = std::min(d.chunk->size, d.maxsize - offset);
            const auto* in = static_cast<const float*>(SPA_PTROFF(d.data, offset, void));
            const std::size_t samples = size / 4 / endpoint->channels_ * endpoint->channels_;
            const std::size_t written = endpoint->ring_->write(in, samples);
            if (written < samples) {
                endpoint->dropped_.fetch_add(samples - written, std::memory_order_relaxed);
            }
            endpoint->signal_.release();
        }
    }
    pw_stream_queue_buffer(endpoint->stream_, buffer);
}

}  // namespace bw::pipewire
