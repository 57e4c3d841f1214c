#pragma once

#include <functional>
#include <memory>
#include <string>

namespace bw {

/// A serial queue: tasks run one at a time, in the order they were queued, on one thread of the
/// queue's own.
///
/// Thread: every member may be called from any thread. `async` takes a short internal lock and
/// allocates; it is not for realtime callbacks. The queue is unbounded.
///
/// Lifetime: the destructor runs every task queued before it and then joins the thread. When the
/// last owner drops the queue from inside one of its own tasks, the thread finishes the queue on its
/// own and ends.
class SerialQueue {
public:
    using Task = std::function<void()>;

    /// Starts the queue's thread. The label names the thread (its last dotted part, as the system
    /// allows 15 characters) and shows up in `label()`.
    explicit SerialQueue(std::string label);
    ~SerialQueue();

    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    const std::string& label() const;

    /// Queues `task` and returns at once.
    void async(Task task);

    /// Runs `task` on the queue and waits for it. Called on the queue itself, it runs `task` in
    /// place instead of waiting for itself.
    void sync(const std::function<void()>& task);

    /// True when the caller runs on this queue (the queue-specific key test).
    bool isCurrent() const;

    /// The queue that the calling thread runs, or null.
    static const SerialQueue* current();

private:
    struct State;
    static void run(const std::shared_ptr<State>& state);
    std::shared_ptr<State> state_;
};

}  // namespace bw
