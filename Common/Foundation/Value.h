#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "Common/Foundation/Export.h"

// Property-list values: what preferences, records and Info.plist files are made of. JSON has one
// more, null, which property lists refuse.
//
// Boolean, integer and real are different types and never compare equal to one another;
// not-a-number equals itself. Arrays and dictionaries are values too: a copy shares its storage
// until one side changes, so that handing a whole store out costs a reference count. A dictionary
// keeps the order in which its keys were first set.
//
// Threads: distinct objects may be used on distinct threads, also when they share storage.

namespace utilia {

class Value;

using Data = std::vector<std::uint8_t>;

// A moment: seconds since 2001-01-01 00:00:00 UTC, fractions included.
struct UTILIA_EXPORT Date {
    double secondsSinceReferenceDate = 0;

    static Date now();
    static Date fromUnixTime(double seconds) { return {seconds - kReferenceUnixTime}; }
    double unixTime() const { return secondsSinceReferenceDate + kReferenceUnixTime; }

    static constexpr double kReferenceUnixTime = 978307200.0;

    friend auto operator<=>(const Date&, const Date&) = default;
};

class UTILIA_EXPORT Array final {
public:
    using const_iterator = const Value*;

    Array() = default;
    Array(std::initializer_list<Value> values);

    std::size_t size() const;
    bool empty() const { return size() == 0; }
    const Value& operator[](std::size_t index) const;  // only below size()
    const_iterator begin() const;
    const_iterator end() const;

    void append(Value value);
    void insert(std::size_t index, Value value);  // index at most size()
    void set(std::size_t index, Value value);     // index below size()
    void removeAt(std::size_t index);             // index below size()
    // Removes every element that equals `value`; answers how many there were.
    std::size_t remove(const Value& value);
    void reserve(std::size_t count);

    friend UTILIA_EXPORT bool operator==(const Array& left, const Array& right);

private:
    std::vector<Value>& own();
    std::shared_ptr<std::vector<Value>> storage_;
};

class UTILIA_EXPORT Dictionary final {
public:
    using Entry = std::pair<std::string, Value>;
    using const_iterator = const Entry*;

    Dictionary() = default;
    Dictionary(std::initializer_list<Entry> entries);  // a later entry of the same key wins

    std::size_t size() const;
    bool empty() const { return size() == 0; }
    const Value* find(std::string_view key) const;  // null when absent; valid until the next change
    bool contains(std::string_view key) const { return find(key) != nullptr; }
    const_iterator begin() const;
    const_iterator end() const;

    // Typed look-ups: empty when the key is absent or holds another type.
    std::optional<std::string> string(std::string_view key) const;
    std::optional<Dictionary> dictionary(std::string_view key) const;
    std::optional<Array> array(std::string_view key) const;
    // As Value::boolValue(); false when absent.
    bool boolean(std::string_view key) const;

    void set(std::string_view key, Value value);
    bool remove(std::string_view key);  // answers whether the key was there
    void reserve(std::size_t count);

    // Equal with the same keys and equal values, in any order.
    friend UTILIA_EXPORT bool operator==(const Dictionary& left, const Dictionary& right);

private:
    struct Storage;
    Storage& own();
    std::shared_ptr<Storage> storage_;
};

class UTILIA_EXPORT Value final {
public:
    enum class Type { Boolean, Integer, Real, String, Bytes, Date, Array, Dictionary, Null };

    Value(std::nullptr_t value) : state_(value) {}
    Value(bool value) : state_(value) {}
    Value(int value) : state_(static_cast<std::int64_t>(value)) {}
    Value(std::int64_t value) : state_(value) {}
    // Values above the signed range are kept and written as 16-byte integers.
    Value(std::uint64_t value);
    Value(double value) : state_(value) {}
    Value(std::string value) : state_(std::move(value)) {}
    Value(std::string_view value) : state_(std::string(value)) {}
    Value(const char* value) : state_(std::string(value)) {}
    Value(Data value) : state_(std::move(value)) {}
    Value(Date value) : state_(value) {}
    Value(Array value) : state_(std::move(value)) {}
    Value(Dictionary value) : state_(std::move(value)) {}
    template <class T>
    Value(T*) = delete;  // a pointer is not a boolean

    Type type() const;

    bool isNull() const { return std::holds_alternative<std::nullptr_t>(state_); }
    // Null when this is of another type.
    const bool* boolean() const { return std::get_if<bool>(&state_); }
    const double* real() const { return std::get_if<double>(&state_); }
    const std::string* string() const { return std::get_if<std::string>(&state_); }
    const Data* data() const { return std::get_if<Data>(&state_); }
    const Date* date() const { return std::get_if<Date>(&state_); }
    const Array* array() const { return std::get_if<Array>(&state_); }
    const Dictionary* dictionary() const { return std::get_if<Dictionary>(&state_); }
    // Null above its range, where largeInteger() answers.
    const std::int64_t* integer() const { return std::get_if<std::int64_t>(&state_); }
    const std::uint64_t* largeInteger() const { return std::get_if<std::uint64_t>(&state_); }

    // Conversions of the original platform's numbers and strings: numbers are true when not zero; a
    // string is true when it begins, after blanks, with T, t, Y, y, or with a number that is not
    // zero (one sign and zeros are skipped); anything else is false.
    bool boolValue() const;
    // Numbers truncate toward zero, strings are read as decimal (Numbers.h), both with saturation;
    // other types answer 0.
    std::int64_t longLongValue() const;
    // Numbers, and strings as far as they read as a decimal number; other types answer 0.
    double doubleValue() const;

    friend UTILIA_EXPORT bool operator==(const Value& left, const Value& right);

private:
    std::variant<bool, std::int64_t, std::uint64_t, double, std::string, Data, Date, Array,
                 Dictionary, std::nullptr_t>
        state_;
};

}  // namespace utilia
