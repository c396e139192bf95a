#pragma once
// How an internal step reports a failure its caller handles (a store that
// cannot open, a socket read that failed, a stored value that cannot be
// read): a value or an error, never both, never neither. Exceptions are kept
// for what reaches the application's calls and futures.
//
//     Result<int> parsePort(std::string_view text);
//     if (auto port = parsePort(text)) use(*port);
//     else log(port.error().message);
//
//     Status step();                       // Result<void>: success or an Error
//     if (auto done = step(); !done) return done.error();

#include <string>
#include <type_traits>
#include <utility>
#include <variant>

namespace tavrin::detail {

struct Error {
    int code = 0;         // the facility's own code (an errno, an SQLite result), 0 when it has none
    std::string message;  // for the log line
};

template <class T, class E = Error>
class [[nodiscard]] Result {
public:
    Result(T value) : state_(std::in_place_index<0>, std::move(value)) {}
    Result(E error) : state_(std::in_place_index<1>, std::move(error)) {}

    bool ok() const noexcept { return state_.index() == 0; }
    explicit operator bool() const noexcept { return ok(); }

    T& value() & { return std::get<0>(state_); }
    const T& value() const& { return std::get<0>(state_); }
    T&& value() && { return std::get<0>(std::move(state_)); }
    T& operator*() & { return value(); }
    const T& operator*() const& { return value(); }
    T* operator->() { return &value(); }
    const T* operator->() const { return &value(); }

    const E& error() const& { return std::get<1>(state_); }
    E&& error() && { return std::get<1>(std::move(state_)); }

private:
    std::variant<T, E> state_;
};

// Success, or what went wrong.
template <class E>
class [[nodiscard]] Result<void, E> {
public:
    Result() = default;
    Result(E error) : error_(std::move(error)), failed_(true) {}

    bool ok() const noexcept { return !failed_; }
    explicit operator bool() const noexcept { return ok(); }
    const E& error() const& { return error_; }
    E&& error() && { return std::move(error_); }

private:
    E error_{};
    bool failed_ = false;
};

using Status = Result<void>;

}  // namespace tavrin::detail
