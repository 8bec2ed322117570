#include "Common/Logging/LogFormatter.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <variant>

#include "Common/Foundation/Utf8Decoder.h"

// Nothing here trusts that a format and its arguments belong together: the arguments carry their
// types, and each disagreement becomes a marker that a reader of the log can see. A placeholder
// that is not known takes no argument, so that one slip does not shift all that follows.

namespace utilia {
namespace {

// Longest first where one begins another.
constexpr std::array<std::string_view, 11> kPlaceholders{"@",  "s",  "d", "u", "lld", "ld",
                                                         "lu", "lx", "f", "g", "%"};

template <class... Format>
void appendNumber(std::string& line, Format... format) {
    // The longest is %f of the largest double: a sign, 309 digits, a point and six digits.
    std::array<char, 328> digits;
    const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), format...);
    line.append(digits.data(), result.ptr);
}

void appendReal(std::string& line, double value, std::chars_format format, int precision) {
    // The sign of not-a-number says nothing.
    if (std::isnan(value)) {
        line.append("nan");
    } else {
        appendNumber(line, value, format, precision);
    }
}

struct PlainAppender {
    std::string& line;
    void operator()(LogArgument::Nil) const { line.append("(null)"); }
    void operator()(std::int64_t value) const { appendNumber(line, value); }
    void operator()(std::uint64_t value) const { appendNumber(line, value); }
    void operator()(double value) const {
        if (std::isnan(value)) {
            line.append("nan");
        } else {
            appendNumber(line, value);
        }
    }
    void operator()(std::string_view text) const { line.append(text); }
};

void appendPlain(std::string& line, const LogArgument& argument) {
    std::visit(PlainAppender{line}, argument.value());
}

std::optional<std::int64_t> asSigned(const LogArgument& argument) {
    if (const auto* const value = std::get_if<std::int64_t>(&argument.value())) return *value;
    const auto* const value = std::get_if<std::uint64_t>(&argument.value());
    constexpr auto kLargest = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    return value && *value <= kLargest ? std::optional(static_cast<std::int64_t>(*value))
                                       : std::nullopt;
}

std::optional<std::uint64_t> asUnsigned(const LogArgument& argument) {
    if (const auto* const value = std::get_if<std::uint64_t>(&argument.value())) return *value;
    const auto* const value = std::get_if<std::int64_t>(&argument.value());
    return value && *value >= 0 ? std::optional(static_cast<std::uint64_t>(*value)) : std::nullopt;
}

// Appends the argument as the placeholder asks; answers false, and appends nothing, when the two do
// not fit.
bool appendAs(std::string& line, std::string_view placeholder, const LogArgument& argument) {
    const auto& value = argument.value();
    switch (placeholder.back()) {
    case '@':
        appendPlain(line, argument);
        return true;
    case 's':
        if (!std::holds_alternative<std::string_view>(value) &&
            !std::holds_alternative<LogArgument::Nil>(value)) {
            return false;
        }
        appendPlain(line, argument);
        return true;
    case 'd':
        if (const auto number = asSigned(argument)) return appendNumber(line, *number), true;
        return false;
    case 'u':
        if (const auto number = asUnsigned(argument)) return appendNumber(line, *number), true;
        return false;
    case 'x':
        if (const auto number = asUnsigned(argument)) return appendNumber(line, *number, 16), true;
        return false;
    default:
        break;
    }
    const double* const real = std::get_if<double>(&value);
    if (!real) return false;
    appendReal(line, *real,
               placeholder == "f" ? std::chars_format::fixed : std::chars_format::general, 6);
    return true;
}

// The known placeholder that `text`, which follows a "%", begins with; empty without one.
std::string_view knownPlaceholder(std::string_view text) {
    const auto* const found =
        std::find_if(kPlaceholders.begin(), kPlaceholders.end(),
                     [text](std::string_view known) { return text.starts_with(known); });
    return found == kPlaceholders.end() ? std::string_view() : text.substr(0, found->size());
}

// What to show of an unknown one: length letters, and the whole character behind them.
std::string_view unknownPlaceholder(std::string_view text) {
    std::size_t length = 0;
    while (length < 2 && length < text.size() && text[length] == 'l') ++length;
    if (length < text.size() && text[length] != '%')
        length += decodeUtf8(text.substr(length)).length;
    return text.substr(0, length);
}

}  // namespace

std::string formatLogLine(std::string_view format, std::span<const LogArgument> arguments) {
    std::string line;
    line.reserve(format.size() + 16 * arguments.size());
    std::size_t used = 0;
    while (!format.empty()) {
        const std::size_t percent = std::min(format.find('%'), format.size());
        line.append(format.substr(0, percent));
        format.remove_prefix(percent);
        if (format.empty()) break;
        format.remove_prefix(1);

        const std::string_view placeholder = knownPlaceholder(format);
        if (placeholder.empty()) {
            const std::string_view unknown = unknownPlaceholder(format);
            line.append("<%").append(unknown).append("?>");
            format.remove_prefix(unknown.size());
            continue;
        }
        format.remove_prefix(placeholder.size());
        if (placeholder == "%") {
            line.push_back('%');
        } else if (used == arguments.size()) {
            line.append("<%").append(placeholder).append(": missing>");
        } else if (const LogArgument& argument = arguments[used++];
                   !appendAs(line, placeholder, argument)) {
            line.append("<%").append(placeholder).append(": ");
            appendPlain(line, argument);
            line.push_back('>');
        }
    }
    for (const LogArgument& argument : arguments.subspan(used)) {
        line.append(" <extra: ");
        appendPlain(line, argument);
        line.push_back('>');
    }
    return line;
}

}  // namespace utilia
