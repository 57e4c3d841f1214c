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
    core_->signal.release();
    if (std::this_thread::get_id() == thread_.get_id()) {
        thread_.detach();
    } else if (thread_.joinable()) {
        thread_.join();
    }
}

void NodeTap::run(const std::shared_ptr<Core>& core) {
    pthread_setname_np(pthread_self(), "av-tap");
    while (!core->stopping.load()) {
        core->signal.acquire();
        while (!core->stopping.load() && core->ring.readable() >= core->bufferSize) {
            auto buffer = PCMBuffer::make(core->format, core->bufferSize);
            if (!buffer) {
                return;
            }
            core->ring.read(buffer->floatChannelData(), core->bufferSize);
            buffer->setFrameLength(core->bufferSize);
            AudioTimeStamp when;
            when.mSampleTime = double(core->delivered);
            core->delivered += core->bufferSize;
            if (core->stopping.load()) {
                return;
            }
            core->block(std::move(buffer), when);
        }
        if (core->onDrop && core->dropped.load(std::memory_order_relaxed) > 0 &&
            !core->stopping.load()) {
            std::exchange(core->onDrop, nullptr)();
        }
    }
}

}  // namespace bw::detail
