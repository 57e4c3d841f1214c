#pragma once

#include <pipewire/thread-loop.h>

namespace bw::pipewire {

/// Holds the PipeWire thread loop's lock for its scope.
///
/// Every `pw_*` call and every read of the layer's state from a thread other than the loop's holds
/// it; callbacks on the loop thread already do. It is never held together with another lock of
/// ours, nor across a call into a listener or IO block.
class LoopLock {
public:
    explicit LoopLock(pw_thread_loop* loop) : loop_(loop) { pw_thread_loop_lock(loop_); }
    ~LoopLock() { pw_thread_loop_unlock(loop_); }
    LoopLock(const LoopLock&) = delete;
    LoopLock& operator=(const LoopLock&) = delete;

private:
    pw_thread_loop* loop_;
};

}  // namespace bw::pipewire
