#pragma once

#include <mutex>

namespace bw {

/// Turns true at a source's first buffer and never back. Thread: any.
class AudioReceivedFlag {
public:
    void set() {
        std::lock_guard guard(lock_);
        received_ = true;
    }
    bool received() const {
        std::lock_guard guard(lock_);
        return received_;
    }

private:
    mutable std::mutex lock_;
    bool received_ = false;
};

}  // namespace bw
