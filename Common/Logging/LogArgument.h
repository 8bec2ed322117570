#pragma once

#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "Common/Foundation/Error.h"
#include "Common/Foundation/Export.h"

namespace utilia {

// One argument of a log line with its type, so that a format and its arguments can never disagree silently.
// Refers to the caller's text: only valid inside the call it is made for.
class UTILIA_EXPORT LogArgument final {
public:
    struct Nil {};

    template <std::signed_integral T>
    LogArgument(T value) : value_(static_cast<std::int64_t>(value)) {}
    template <std::unsigned_integral T>
    LogArgument(T value) : value_(static_cast<std::uint64_t>(value)) {}
    LogArgument(bool value) : value_(static_cast<std::int64_t>(value)) {}
    LogArgument(double value) : value_(value) {}
    LogArgument(std::string_view text) : value_(text) {}
    LogArgument(const std::string& text) : value_(std::string_view(text)) {}
    LogArgument(const char* text);  // null is nil
    LogArgument(std::nullptr_t) : value_(Nil{}) {}
    LogArgument(const std::optional<std::string>& text);  // empty is nil
    LogArgument(const Error& error);                      // its description
    template <class T>
    LogArgument(T*) = delete;

    const auto& value() const { return value_; }

private:
    std::variant<Nil, std::int64_t, std::uint64_t, double, std::string_view> value_;
};

}  // namespace utilia
