#include "platform/av/detail/NodeTap.h"

#include <utility>

#include <pthread.h>

namespace bw::detail {

namespace {
constexpr std::size_t kRingBuffers = 8;
}

NodeTap::Core::Core(FrameCount size, const AudioFormat& requested, AudioTapBlock tapBlock,
                    AudioTapDropHandler dropHandler)
    : bufferSize(size == 0 ? 1 : size),
      format(*AudioFormat::standard(requested.sampleRate(), requested.channelCount())),
      block(std::move(tapBlock)),
      onDrop(std::move(dropHandler)),
      ring(requested.channelCount(), std::size_t(bufferSize) * kRingBuffers) {}

NodeTap::NodeTap(FrameCount bufferSize, const AudioFormat& format, AudioTapBlock block,
                 AudioTapDropHandler onDrop)
    : core_(std::make_shared<Core>(bufferSize, format, std::move(block), std::move(onDrop))),
      thread_([core = core_] { run(core); }) {}

NodeTap::~NodeTap() {
    stop();
}

// Realtime: ring copy and, once a whole buffer waits, a semaphore post; the thread is not woken
// for cycles it could not deliver anyway.
void NodeTap::push(const float* const* channels, FrameCount frames) {
    const std::size_t written = core_->ring.write(channels, frames);
    if (written < frames) {
        core_->dropped.fetch_add(frames - written, std::memory_order_relaxed);
    }
    if (core_->ring.readable() >= core_->bufferSize) {
        core_->signal.release();
    }
}

void NodeTap::stop() {
    if (core_->stopping.exchange(true)) {
        return;
    }
    const bool fromBlock = std::this_thread::get_id() == thread_.get_id();
    if (fromBlock) {
        core_->abandoned.store(true);
    }
    core_->signal.release();
    if (fromBlock) {
        thread_.detach();
    } else if (thread_.joinable()) {
        thread_.join();
    }
}

void NodeTap::run(const std::shared_ptr<Core>& core) {
    pthread_setname_np(pthread_self(), "av-tap");
    for (;;) {
        core->signal.acquire();
        // Read before the ring: what was pushed before the stop is all there by now.
        const bool stopping = core->stopping.load();
        while (!core->abandoned.load() && core->ring.readable() >= core->bufferSize) {
            auto buffer = PCMBuffer::make(core->format, core->bufferSize);
            if (!buffer) {
                return;
            }
            core->ring.read(buffer->floatChannelData(), core->bufferSize);
            buffer->setFrameLength(core->bufferSize);
            AudioTimeStamp when;
            when.mSampleTime = double(core->delivered);
            core->delivered += core->bufferSize;
            core->block(std::move(buffer), when);
        }
        if (stopping || core->abandoned.load()) {
            return;
        }
        if (core->onDrop && core->dropped.load(std::memory_order_relaxed) > 0) {
            std::exchange(core->onDrop, nullptr)();
        }
    }
}

}  // namespace bw::detail
