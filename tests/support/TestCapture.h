#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "engine/Capture.h"

namespace bw::test {

/// A capture that honours the engine's contract without a device: it starts (or fails with the
/// error it was given), and the test hands it buffers, which reach the handler on the test's
/// thread as they would on a capture thread.
class TestCapture : public Capture {
public:
    explicit TestCapture(AudioFormat format, ErrorRef startFailure = nullptr)
        : format_(format), startFailure_(std::move(startFailure)) {}

    Expected<void, ErrorRef> start() override {
        std::lock_guard guard(lock_);
        if (startFailure_) {
            return Unexpected(startFailure_);
        }
        started_ = true;
        return {};
    }
    std::optional<AudioFormat> format() const override {
        std::lock_guard guard(lock_);
        return started_ ? std::optional(format_) : std::nullopt;
    }
    void setBufferHandler(BufferHandler handler) override {
        std::lock_guard guard(lock_);
        handler_ = std::move(handler);
    }
    void setFailureHandler(FailureCallback handler) override {
        std::lock_guard guard(lock_);
        failureHandler_ = std::move(handler);
    }
    /// Reports lost audio, as a capture whose reader fell behind does.
    void loseAudio(const std::string& message) {
        FailureCallback handler;
        {
            std::lock_guard guard(lock_);
            handler = failureHandler_;
        }
        if (handler) {
            handler(message);
        }
    }
    void stop() override {
        std::lock_guard guard(lock_);
        started_ = false;
    }

    /// Hands one buffer to the handler, if any, outside the lock.
    void deliver(std::shared_ptr<PCMBuffer> buffer) {
        BufferHandler handler;
        {
            std::lock_guard guard(lock_);
            handler = handler_;
        }
        if (handler) {
            handler(std::move(buffer));
        }
    }

    const AudioFormat& declaredFormat() const { return format_; }

private:
    mutable std::mutex lock_;
    AudioFormat format_;
    ErrorRef startFailure_;
    BufferHandler handler_;
    FailureCallback failureHandler_;
    bool started_ = false;
};

/// Hands out prepared captures by source id and remembers how it was asked.
class TestCaptureFactory {
public:
    void add(const std::string& sourceID, std::shared_ptr<TestCapture> capture) {
        std::lock_guard guard(lock_);
        captures_[sourceID] = std::move(capture);
    }
    CaptureFactory factory() {
        return [this](const RecordingSource& source, bool mute) -> std::shared_ptr<Capture> {
            std::lock_guard guard(lock_);
            requests_.push_back({source.id, mute});
            auto it = captures_.find(source.id);
            return it == captures_.end() ? nullptr : it->second;
        };
    }
    struct Request {
        std::string sourceID;
        bool muteTappedAudio;
    };
    std::vector<Request> requests() const {
        std::lock_guard guard(lock_);
        return requests_;
    }

private:
    mutable std::mutex lock_;
    std::map<std::string, std::shared_ptr<TestCapture>> captures_;
    std::vector<Request> requests_;
};

}  // namespace bw::test
