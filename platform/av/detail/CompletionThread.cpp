#include "platform/av/detail/CompletionThread.h"

#include <pthread.h>

namespace bw::detail {

CompletionThread::CompletionThread() : thread_([this] { run(); }) {}

CompletionThread::~CompletionThread() {
    stopping_.store(true);
    signal_.release();
    thread_.join();
    drain();
}

void CompletionThread::run() {
    pthread_setname_np(pthread_self(), "av-completions");
    while (!stopping_.load()) {
        if (drain()) {
            // More are likely on the way: look again soon rather than be woken for each.
            (void)signal_.tryAcquireFor(kPoll);
            continue;
        }
        idle_.store(true, std::memory_order_release);
        // One posted before `idle_` was seen would wait for the next batch: take it now.
        if (drain()) {
            idle_.store(false, std::memory_order_release);
            continue;
        }
        signal_.acquire();
    }
}

bool CompletionThread::drain() {
    bool ran = false;
    while (MpscNode* node = queue_.pop()) {
        std::unique_ptr<ScheduledBuffer> item(static_cast<ScheduledBuffer*>(node));
        if (item->completion) {
            item->completion();
        }
        ran = true;
    }
    return ran;
}

}  // namespace bw::detail
