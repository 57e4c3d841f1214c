#pragma once

#include <coroutine>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace bw {

/// A value that arrives once and that any number of coroutines can await; each gets a copy.
/// Copies of a `SharedResult` share one state, so the setter and the waiters can hold their own.
///
/// Thread: the main thread only (copying the handle is safe anywhere). A waiter that comes after
/// the value does not suspend. Waiters of a result that never arrives stay suspended.
template <class T>
class SharedResult {
    struct State {
        std::optional<T> value;
        std::vector<std::coroutine_handle<>> waiters;
    };

public:
    SharedResult() : state_(std::make_shared<State>()) {}

    bool isReady() const { return state_->value.has_value(); }

    /// Stores the value and resumes every waiter, in the order they began to wait, before it
    /// returns. Only the first call counts; later ones do nothing.
    void set(T value) {
        if (state_->value) {
            return;
        }
        state_->value = std::move(value);
        auto keepAlive = state_;
        auto waiters = std::exchange(state_->waiters, {});
        for (auto waiter : waiters) {
            waiter.resume();
        }
    }

    class Awaiter {
    public:
        explicit Awaiter(std::shared_ptr<State> state) : state_(std::move(state)) {}
        bool await_ready() const noexcept { return state_->value.has_value(); }
        void await_suspend(std::coroutine_handle<> waiter) { state_->waiters.push_back(waiter); }
        T await_resume() const { return *state_->value; }

    private:
        std::shared_ptr<State> state_;
    };

    Awaiter operator co_await() const { return Awaiter(state_); }

private:
    std::shared_ptr<State> state_;
};

}  // namespace bw
