#include "engine/BoundedBufferScheduler.h"

#include "platform/base/Localization.h"

namespace bw {

std::string BoundedBufferScheduler::overrunMessage() {
    return localized("BoundedBufferScheduler",
                     "Recording stopped because audio capture could not keep up.");
}

BoundedBufferScheduler::BoundedBufferScheduler(std::shared_ptr<AudioPlayerNode> player,
                                               int maxPendingBuffers)
    : player_(std::move(player)), maxPendingBuffers_(maxPendingBuffers) {}

void BoundedBufferScheduler::schedule(std::shared_ptr<PCMBuffer> buffer,
                                      const FailureCallback& onOverrun) {
    {
        std::unique_lock guard(lock_);
        if (stopped_) {
            return;
        }
        if (pendingBuffers_ >= maxPendingBuffers_) {
            ++droppedBuffers_;
            if (reportedOverrun_) {
                return;
            }
            reportedOverrun_ = true;
            guard.unlock();
            if (onOverrun) {
                onOverrun(overrunMessage());
            }
            return;
        }
        ++pendingBuffers_;
    }
    const bool queued = player_->scheduleBuffer(
        std::move(buffer), AudioPlayerNode::CompletionCallbackType::dataPlayedBack,
        [weak = weak_from_this()] {
            if (auto self = weak.lock()) {
                self->bufferPlayedBack();
            }
        });
    if (!queued) {
        bufferPlayedBack();  // a player outside a graph never completes
    }
}

void BoundedBufferScheduler::bufferPlayedBack() {
    std::lock_guard guard(lock_);
    if (pendingBuffers_ > 0) {
        --pendingBuffers_;
    }
}

void BoundedBufferScheduler::clearStopped() {
    std::lock_guard guard(lock_);
    stopped_ = false;
}

void BoundedBufferScheduler::stopAndForgetPending() {
    std::lock_guard guard(lock_);
    stopped_ = true;
    pendingBuffers_ = 0;
}

int BoundedBufferScheduler::pendingBuffers() const {
    std::lock_guard guard(lock_);
    return pendingBuffers_;
}

}  // namespace bw

namespace bw {

int BoundedBufferScheduler::droppedBuffers() const {
    std::lock_guard guard(lock_);
    return droppedBuffers_;
}

}  // namespace bw
