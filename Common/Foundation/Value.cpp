#include "Common/Foundation/Value.h"

#include <chrono>
#include <cmath>
#include <limits>

#include "Common/Foundation/Numbers.h"

namespace utilia {
namespace {

constexpr auto kLargestSigned =
    static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());

// Toward zero; what lies outside the range answers its nearest end, and what is no number answers
// 0.
std::int64_t truncated(double value) {
    constexpr double kBound = 9223372036854775808.0;  // 2^63
    if (std::isnan(value)) return 0;
    if (value >= kBound) return std::numeric_limits<std::int64_t>::max();
    if (value < -kBound) return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(value);
}

// Not-a-number equals itself here: otherwise a container would differ from its own copy, and a
// store that holds one would seem changed for ever.
bool sameReal(double left, double right) {
    return left == right || (std::isnan(left) && std::isnan(right));
}

}  // namespace

Date Date::now() {
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    return fromUnixTime(std::chrono::duration<double>(sinceEpoch).count());
}

Value::Value(std::uint64_t value) {
    if (value <= kLargestSigned) {
        state_ = static_cast<std::int64_t>(value);
    } else {
        state_ = value;
    }
}

Value::Type Value::type() const {
    switch (state_.index()) {
    case 0:
        return Type::Boolean;
    case 1:
    case 2:
        return Type::Integer;
    case 3:
        return Type::Real;
    case 4:
        return Type::String;
    case 5:
        return Type::Bytes;
    case 6:
        return Type::Date;
    case 7:
        return Type::Array;
    case 8:
        return Type::Dictionary;
    default:
        return Type::Null;
    }
}

bool Value::boolValue() const {
    if (const bool* const value = boolean()) return *value;
    if (const std::int64_t* const value = integer()) return *value != 0;
    if (largeInteger()) return true;
    if (const double* const value = real()) return *value != 0;
    if (const std::string* const text = string()) return utilia::boolValue(*text);
    return false;
}

std::int64_t Value::longLongValue() const {
    if (const bool* const value = boolean()) return *value ? 1 : 0;
    if (const std::int64_t* const value = integer()) return *value;
    if (largeInteger()) return std::numeric_limits<std::int64_t>::max();
    if (const double* const value = real()) return truncated(*value);
    if (const std::string* const text = string()) return utilia::longLongValue(*text);
    return 0;
}

double Value::doubleValue() const {
    if (const bool* const value = boolean()) return *value ? 1 : 0;
    if (const std::int64_t* const value = integer()) return static_cast<double>(*value);
    if (const std::uint64_t* const value = largeInteger()) return static_cast<double>(*value);
    if (const double* const value = real()) return *value;
    if (const std::string* const text = string()) return utilia::doubleValue(*text);
    return 0;
}

bool operator==(const Value& left, const Value& right) {
    if (const double* const a = left.real(), * const b = right.real(); a && b)
        return sameReal(*a, *b);
    return left.state_ == right.state_;
}

}  // namespace utilia
