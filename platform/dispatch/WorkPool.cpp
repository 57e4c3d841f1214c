#include "platform/dispatch/WorkPool.h"

#include <algorithm>

namespace bw {

WorkPool::WorkPool(unsigned threadCount) {
    threads_.reserve(threadCount);
    for (unsigned i = 0; i < threadCount; ++i) {
        threads_.emplace_back([this] { run(); });
    }
}

WorkPool::~WorkPool() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    for (auto& thread : threads_) {
        thread.join();
    }
}

WorkPool& WorkPool::shared() {
    static WorkPool pool(std::max(2u, std::thread::hardware_concurrency()));
    return pool;
}

void WorkPool::async(std::function<void()> task) {
    {
        std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
    }
    wake_.notify_one();
}

void WorkPool::run() {
    for (;;) {
        std::function<void()> task;
        {
            std::unique_lock lock(mutex_);
            wake_.wait(lock, [&] { return stopping_ || !tasks_.empty(); });
            if (tasks_.empty()) {
                return;
            }
            task = std::move(tasks_.front());
            tasks_.pop_front();
        }
        task();
    }
}

}  // namespace bw
