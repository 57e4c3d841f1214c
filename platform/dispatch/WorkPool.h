#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace bw {

/// A small pool of threads for detached work off the main thread (listings, file-name searches,
/// folder creation, icon lookups). Tasks may run in parallel and in any order.
///
/// Thread: `async` may be called from any thread; it locks briefly and allocates, so not from a
/// realtime callback. The queue of tasks is unbounded. The destructor runs what was queued and joins.
class WorkPool {
public:
    explicit WorkPool(unsigned threadCount);
    ~WorkPool();

    WorkPool(const WorkPool&) = delete;
    WorkPool& operator=(const WorkPool&) = delete;

    /// The process-wide pool, made at first use.
    static WorkPool& shared();

    void async(std::function<void()> task);

private:
    void run();

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> tasks_;
    bool stopping_ = false;
    std::vector<std::thread> threads_;
};

}  // namespace bw
