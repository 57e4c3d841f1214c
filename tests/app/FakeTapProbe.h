#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "capture/CoreAudioError.h"
#include "capture/SystemAudioPermission.h"

namespace bw::test {

/// A probe whose answer the test sets and that can be held inside an attempt.
class FakeProbe : public SystemAudioTapProbe {
public:
    Expected<void, ErrorRef> makeTap() override {
        std::unique_lock guard(lock_);
        ++attempts;
        opened_.wait(guard, [this] { return !held_; });
        if (grant) {
            return {};
        }
        return Unexpected(makeError(CoreAudioError(-1, "create permission-check tap")));
    }
    void hold() {
        std::lock_guard guard(lock_);
        held_ = true;
    }
    void release() {
        {
            std::lock_guard guard(lock_);
            held_ = false;
        }
        opened_.notify_all();
    }

    std::atomic<int> attempts{0};
    std::atomic<bool> grant{false};

private:
    std::mutex lock_;
    std::condition_variable opened_;
    bool held_ = false;
};

}  // namespace bw::test
