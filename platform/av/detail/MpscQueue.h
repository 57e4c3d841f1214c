#pragma once

#include <atomic>

namespace bw::detail {

/// A link for `MpscQueue`; embed it as the first base of the queued type.
struct MpscNode {
    std::atomic<MpscNode*> next{nullptr};
};

/// An intrusive multi-producer, single-consumer queue (after Dmitry Vyukov's design).
///
/// `push` is wait-free and realtime-safe from any thread. `pop` belongs to one consumer at a time
/// and never blocks; it may return null while a push is half done, and the item then shows up at
/// the next pop. The queue owns nothing: the caller owns the nodes.
class MpscQueue {
public:
    MpscQueue() : head_(&stub_), tail_(&stub_) {}
    MpscQueue(const MpscQueue&) = delete;
    MpscQueue& operator=(const MpscQueue&) = delete;

    // Realtime: wait-free, no allocation.
    void push(MpscNode* node) {
        node->next.store(nullptr, std::memory_order_relaxed);
        MpscNode* previous = head_.exchange(node, std::memory_order_acq_rel);
        previous->next.store(node, std::memory_order_release);
    }

    // Realtime: no allocation or wait; single consumer only.
    MpscNode* pop() {
        MpscNode* tail = tail_;
        MpscNode* next = tail->next.load(std::memory_order_acquire);
        if (tail == &stub_) {
            if (next == nullptr) {
                return nullptr;
            }
            tail_ = next;
            tail = next;
            next = next->next.load(std::memory_order_acquire);
        }
        if (next != nullptr) {
            tail_ = next;
            return tail;
        }
        if (tail != head_.load(std::memory_order_acquire)) {
            return nullptr;
        }
        push(&stub_);
        next = tail->next.load(std::memory_order_acquire);
        if (next != nullptr) {
            tail_ = next;
            return tail;
        }
        return nullptr;
    }

private:
    std::atomic<MpscNode*> head_;
    MpscNode* tail_;
    MpscNode stub_;
};

}  // namespace bw::detail
