#include "Common/Platform/Linux/JSONWriter.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>

#include "Common/Foundation/Unicode.h"

namespace utilia::platform {

Result<std::string> JSONWriter::write(const Value& value) {
    const char* wrong = value.array() || value.dictionary()
                            ? put(value, 0)
                            : "neither an array nor a dictionary at the top";
    if (wrong) {
        return Error::cocoa(CocoaErrorCode::PropertyListWriteInvalid,
                            std::string("JSON cannot say: ") + wrong);
    }
    return std::move(text_);
}

const char* JSONWriter::put(const Value& value, std::size_t depth) {
    switch (value.type()) {
    case Value::Type::Boolean:
        text_ += *value.boolean() ? "true" : "false";
        return nullptr;
    case Value::Type::Integer:
        text_ += value.integer() ? std::to_string(*value.integer())
                                 : std::to_string(*value.largeInteger());
        return nullptr;
    case Value::Type::Real:
        return putReal(*value.real());
    case Value::Type::String:
        return putString(*value.string());
    case Value::Type::Array:
        return putArray(*value.array(), depth);
    case Value::Type::Dictionary:
        return putDictionary(*value.dictionary(), depth);
    case Value::Type::Null:
        text_ += "null";
        return nullptr;
    case Value::Type::Bytes:
        return "data";
    case Value::Type::Date:
        return "a date";
    }
    return nullptr;
}

// A container without members has an empty line between its brackets in the pretty form.
const char* JSONWriter::putArray(const Array& array, std::size_t depth) {
    if (depth == kJSONMaximumDepth) return "arrays and dictionaries nested too deep";
    text_ += '[';
    bool isFirst = true;
    for (const Value& element : array) {
        if (!isFirst) text_ += ',';
        isFirst = false;
        startLine(depth + 1);
        if (const char* wrong = put(element, depth + 1)) return wrong;
    }
    if (isFirst && isPretty_) text_ += '\n';
    startLine(depth);
    text_ += ']';
    return nullptr;
}

const char* JSONWriter::putDictionary(const Dictionary& dictionary, std::size_t depth) {
    if (depth == kJSONMaximumDepth) return "arrays and dictionaries nested too deep";
    text_ += '{';
    bool isFirst = true;
    for (const auto& [key, element] : dictionary) {
        if (!isFirst) text_ += ',';
        isFirst = false;
        startLine(depth + 1);
        if (const char* wrong = putString(key)) return wrong;
        text_ += isPretty_ ? " : " : ":";
        if (const char* wrong = put(element, depth + 1)) return wrong;
    }
    if (isFirst && isPretty_) text_ += '\n';
    startLine(depth);
    text_ += '}';
    return nullptr;
}

// The shortest digits that read back as the number; with an exponent only where the original
// platform writes one: below a ten-thousandth, and from 2^54 on.
const char* JSONWriter::putReal(double number) {
    if (!std::isfinite(number)) return "infinity and not-a-number";
    const double size = std::fabs(number);
    const bool isFixed = size == 0 || (size >= 1e-4 && size < 18014398509481984.0);
    std::array<char, 64> digits;
    const auto end =
        std::to_chars(digits.data(), digits.data() + digits.size(), number,
                      isFixed ? std::chars_format::fixed : std::chars_format::scientific);
    text_.append(digits.data(), end.ptr);
    return nullptr;
}

const char* JSONWriter::putString(const std::string& string) {
    if (!isValidUtf8(string)) return "text that is not UTF-8";
    text_ += '"';
    for (const char c : string) {
        constexpr std::string_view kEscaped = "\"\\/\b\f\n\r\t";
        constexpr std::string_view kLetters = "\"\\/bfnrt";
        if (const std::size_t which = kEscaped.find(c); which != kEscaped.npos) {
            text_.append({'\\', kLetters[which]});
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
            text_ += escape;
        } else {
            text_ += c;
        }
    }
    text_ += '"';
    return nullptr;
}

void JSONWriter::startLine(std::size_t depth) {
    if (isPretty_) text_.append("\n").append(2 * depth, ' ');
}

}  // namespace utilia::platform
