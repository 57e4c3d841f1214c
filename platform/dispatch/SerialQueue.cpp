#include "platform/dispatch/SerialQueue.h"

#include <pthread.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

namespace bw {

struct SerialQueue::State {
    std::string label;
    const SerialQueue* owner = nullptr;
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<Task> tasks;
    bool busy = false;  // a task runs, on the queue's thread or inline in `sync`
    bool stopping = false;
    std::thread thread;
};

namespace {

thread_local const SerialQueue* tCurrentQueue = nullptr;

std::string threadNameFor(const std::string& label) {
    auto dot = label.find_last_of('.');
    std::string name = dot == std::string::npos ? label : label.substr(dot + 1);
    return name.substr(0, 15);
}

}  // namespace

SerialQueue::SerialQueue(std::string label) : state_(std::make_shared<State>()) {
    state_->label = std::move(label);
    state_->owner = this;
    state_->thread = std::thread([state = state_] { run(state); });
}

SerialQueue::~SerialQueue() {
    {
        std::lock_guard lock(state_->mutex);
        state_->stopping = true;
    }
    state_->wake.notify_one();
    if (isCurrent()) {
        // Dropped from one of its own tasks: the thread drains the rest and ends by itself.
        state_->thread.detach();
    } else {
        state_->thread.join();
    }
}

const std::string& SerialQueue::label() const {
    return state_->label;
}

void SerialQueue::async(Task task) {
    // The task may drop the last owner of this queue as soon as it runs: notify through a state
    // of our own, after unlocking, so that the woken thread does not block on the lock at once.
    const std::shared_ptr<State> state = state_;
    {
        std::lock_guard lock(state->mutex);
        state->tasks.push_back(std::move(task));
    }
    state->wake.notify_one();
}

void SerialQueue::sync(const std::function<void()>& task) {
    if (isCurrent()) {
        task();
        return;
    }
    // An idle queue lends itself to the caller: the task runs here, still alone on the queue,
    // and neither thread has to wake the other.
    const std::shared_ptr<State> state = state_;  // the task may drop the last owner
    {
        std::unique_lock lock(state->mutex);
        if (!state->busy && state->tasks.empty()) {
            state->busy = true;
            lock.unlock();
            // Gives the queue back however the task ends.
            struct Lent {
                State& state;
                const SerialQueue* outer = std::exchange(tCurrentQueue, state.owner);
                ~Lent() {
                    tCurrentQueue = outer;
                    std::lock_guard relock(state.mutex);
                    state.busy = false;
                    if (!state.tasks.empty() || state.stopping) {
                        state.wake.notify_one();
                    }
                }
            } lent{*state};
            task();
            return;
        }
    }
    std::mutex doneMutex;
    std::condition_variable doneSignal;
    bool done = false;
    async([&] {
        task();
        // Notify under the lock: the waiter's locals die as soon as it sees `done`.
        std::lock_guard lock(doneMutex);
        done = true;
        doneSignal.notify_one();
    });
    std::unique_lock lock(doneMutex);
    doneSignal.wait(lock, [&] { return done; });
}

bool SerialQueue::isCurrent() const {
    return tCurrentQueue == this;
}

const SerialQueue* SerialQueue::current() {
    return tCurrentQueue;
}

void SerialQueue::run(const std::shared_ptr<State>& state) {
    pthread_setname_np(pthread_self(), threadNameFor(state->label).c_str());
    tCurrentQueue = state->owner;
    for (;;) {
        Task task;
        {
            std::unique_lock lock(state->mutex);
            state->busy = false;
            state->wake.wait(
                lock, [&] { return !state->busy && (state->stopping || !state->tasks.empty()); });
            if (state->tasks.empty()) {
                break;
            }
            task = std::move(state->tasks.front());
            state->tasks.pop_front();
            state->busy = true;
        }
        task();
        task = nullptr;  // what the task held goes before the queue counts as idle
    }
    tCurrentQueue = nullptr;
}

}  // namespace bw
