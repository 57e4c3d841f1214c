#pragma once

#include <utility>
#include <variant>

namespace bw {

/// The error side of an `Expected`, for returning a failure: `return Unexpected(error);`.
template <class E>
struct Unexpected {
    E error;
    explicit Unexpected(E value) : error(std::move(value)) {}
};

/// A value or the typed error of a set-up call that failed (C++20 has no std::expected yet).
template <class T, class E>
class [[nodiscard]] Expected {
public:
    Expected(T value) : storage_(std::in_place_index<0>, std::move(value)) {}
    Expected(Unexpected<E> failure) : storage_(std::in_place_index<1>, std::move(failure.error)) {}

    bool hasValue() const { return storage_.index() == 0; }
    explicit operator bool() const { return hasValue(); }

    T& value() & { return std::get<0>(storage_); }
    const T& value() const& { return std::get<0>(storage_); }
    T&& value() && { return std::get<0>(std::move(storage_)); }
    T* operator->() { return &value(); }
    T& operator*() & { return value(); }

    const E& error() const { return std::get<1>(storage_); }

private:
    std::variant<T, E> storage_;
};

/// Success without a value, or the error.
template <class E>
class [[nodiscard]] Expected<void, E> {
public:
    Expected() = default;
    Expected(Unexpected<E> failure) : failed_(true), error_(std::move(failure.error)) {}

    bool hasValue() const { return !failed_; }
    explicit operator bool() const { return hasValue(); }
    const E& error() const { return error_; }

private:
    bool failed_ = false;
    E error_{};
};

}  // namespace bw
