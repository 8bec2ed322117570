#pragma once

#include <cassert>
#include <optional>
#include <utility>
#include <variant>

#include "Common/Foundation/Error.h"

namespace utilia {

// A value, or the Error that explains why there is none. A subset of std::expected<T, Error>.
template <class T>
class [[nodiscard]] Result final {
public:
    using value_type = T;

    Result(T value) : state_(std::in_place_index<0>, std::move(value)) {}
    Result(Error error) : state_(std::in_place_index<1>, std::move(error)) {}

    bool has_value() const { return state_.index() == 0; }
    explicit operator bool() const { return has_value(); }

    // Only with has_value().
    T& value() & { return assert(has_value()), std::get<0>(state_); }
    const T& value() const& { return assert(has_value()), std::get<0>(state_); }
    T&& value() && { return assert(has_value()), std::get<0>(std::move(state_)); }
    T& operator*() & { return value(); }
    const T& operator*() const& { return value(); }
    T&& operator*() && { return std::move(*this).value(); }
    T* operator->() { return &value(); }
    const T* operator->() const { return &value(); }
    template <class U>
    T value_or(U&& otherwise) const& {
        return has_value() ? std::get<0>(state_) : static_cast<T>(std::forward<U>(otherwise));
    }
    template <class U>
    T value_or(U&& otherwise) && {
        return has_value() ? std::get<0>(std::move(state_))
                           : static_cast<T>(std::forward<U>(otherwise));
    }

    // Only without has_value().
    const Error& error() const& { return assert(!has_value()), std::get<1>(state_); }
    Error&& error() && { return assert(!has_value()), std::get<1>(std::move(state_)); }

private:
    std::variant<T, Error> state_;
};

template <>
class [[nodiscard]] Result<void> final {
public:
    using value_type = void;

    Result() = default;
    Result(Error error) : error_(std::move(error)) {}

    bool has_value() const { return !error_.has_value(); }
    explicit operator bool() const { return has_value(); }

    const Error& error() const& { return assert(!has_value()), *error_; }
    Error&& error() && { return assert(!has_value()), *std::move(error_); }

private:
    std::optional<Error> error_;
};

}  // namespace utilia
