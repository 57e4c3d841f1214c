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
        signal_.acquire();
        drain();
    }
}

void CompletionThread::drain() {
    while (MpscNode* node = queue_.pop()) {
        std::unique_ptr<ScheduledBuffer> item(static_cast<ScheduledBuffer*>(node));
        if (item->completion) {
            item->completion();
        }
    }
}

}  // namespace bw::detail
