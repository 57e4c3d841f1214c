#include "platform/av/AudioPlayerNode.h"

#include <algorithm>
#include <cmath>
#include <thread>

#include "platform/av/AudioEngine.h"
#include "platform/av/VectorOps.h"
#include "platform/av/detail/CompletionThread.h"

namespace bw {

AudioPlayerNode::AudioPlayerNode() = default;

AudioPlayerNode::~AudioPlayerNode() {
    acquireQueue(true);
    discardQueued(false);
    releaseQueue();
}

bool AudioPlayerNode::scheduleBuffer(std::shared_ptr<PCMBuffer> buffer, CompletionCallbackType,
                                     CompletionHandler completion) {
    if (!buffer || engine() == nullptr) {
        return false;
    }
    auto* item = new detail::ScheduledBuffer;
    queuedFrames_.fetch_add(buffer->frameLength(), std::memory_order_release);
    item->buffer = std::move(buffer);
    item->completion = std::move(completion);
    queue_.push(item);
    return true;
}

void AudioPlayerNode::play() {
    playing_.store(true);
}

void AudioPlayerNode::stop() {
    playing_.store(false);
    acquireQueue(true);
    discardQueued(true);
    releaseQueue();
    if (engine() != nullptr) {
        engine()->completionThread().wakeNow();
    }
}

void AudioPlayerNode::setVolume(float volume) {
    volume_.store(std::clamp(std::isnan(volume) ? 1.0f : volume, 0.0f, 1.0f));
}

bool AudioPlayerNode::prepareRender(FrameCount) {
    return outputFormat().has_value();
}

void AudioPlayerNode::renderingStopped() {}

bool AudioPlayerNode::acquireQueue(bool wait) {
    while (consuming_.test_and_set(std::memory_order_acquire)) {
        if (!wait) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

void AudioPlayerNode::releaseQueue() {
    consuming_.clear(std::memory_order_release);
}

void AudioPlayerNode::finish(detail::ScheduledBuffer* item) {
    if (engine() != nullptr) {
        engine()->completionThread().complete(item);
    } else {
        delete item;
    }
}

void AudioPlayerNode::discardQueued(bool runCompletions) {
    auto drop = [&](detail::ScheduledBuffer* item) {
        queuedFrames_.fetch_sub(item->buffer->frameLength() - item->consumed,
                                std::memory_order_release);
        if (runCompletions) {
            finish(item);
        } else {
            delete item;
        }
    };
    if (current_ != nullptr) {
        drop(current_);
        current_ = nullptr;
    }
    while (detail::MpscNode* node = queue_.pop()) {
        drop(static_cast<detail::ScheduledBuffer*>(node));
    }
}

// Realtime: copies queued samples; hands finished buffers to the completion thread. Never waits:
// when `stop` holds the queue, this cycle plays silence.
void AudioPlayerNode::render(float* const* output, FrameCount frames) {
    const ChannelCount channels = outputFormat()->channelCount();
    const double rate = outputFormat()->sampleRate();
    FrameCount filled = 0;
    bool completed = false;
    if (playing_.load(std::memory_order_acquire) && acquireQueue(false)) {
        while (filled < frames) {
            if (current_ == nullptr) {
                current_ = static_cast<detail::ScheduledBuffer*>(queue_.pop());
                if (current_ == nullptr) {
                    break;
                }
            }
            const PCMBuffer& buffer = *current_->buffer;
            float* const* source = buffer.floatChannelData();
            if (source == nullptr || buffer.format().channelCount() != channels ||
                buffer.format().sampleRate() != rate) {
                queuedFrames_.fetch_sub(buffer.frameLength() - current_->consumed,
                                        std::memory_order_release);
                current_->consumed = buffer.frameLength();
            }
            const FrameCount count =
                std::min(frames - filled, buffer.frameLength() - current_->consumed);
            if (count > 0) {
                if (buffer.format().isInterleaved()) {
                    for (ChannelCount c = 0; c < channels; ++c) {
                        const float* in =
                            source[0] + std::size_t(current_->consumed) * channels + c;
                        float* out = output[c] + filled;
                        for (FrameCount i = 0; i < count; ++i) {
                            out[i] = in[std::size_t(i) * channels];
                        }
                    }
                } else {
                    for (ChannelCount c = 0; c < channels; ++c) {
                        std::copy_n(source[c] + current_->consumed, count, output[c] + filled);
                    }
                }
                current_->consumed += count;
                filled += count;
                queuedFrames_.fetch_sub(count, std::memory_order_release);
            }
            if (current_->consumed >= buffer.frameLength()) {
                finish(current_);
                current_ = nullptr;
                completed = true;
            }
        }
        releaseQueue();
    }
    for (ChannelCount c = 0; c < channels; ++c) {
        vec::clear(output[c] + filled, frames - filled);
    }
    const float gain = volume_.load(std::memory_order_relaxed);
    if (gain != 1.0f) {
        for (ChannelCount c = 0; c < channels; ++c) {
            vec::scale(output[c], gain, filled);
        }
    }
    if (completed && engine() != nullptr) {
        engine()->noteCompletionsPosted();
    }
}

}  // namespace bw
