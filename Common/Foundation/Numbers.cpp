#include "Common/Foundation/Numbers.h"

#include <algorithm>
#include <charconv>
#include <limits>

#include "Common/Foundation/Utf8Decoder.h"

namespace utilia {
namespace {

bool isDigit(char character) { return character >= '0' && character <= '9'; }

bool isWhiteSpaceOrLineBreak(char32_t character) {
    switch (character) {
    case 0x20:
    case 0x85:
    case 0xA0:
    case 0x1680:
    case 0x2028:
    case 0x2029:
    case 0x202F:
    case 0x205F:
    case 0x3000:
        return true;
    default:
        return (character >= 0x09 && character <= 0x0D) ||
               (character >= 0x2000 && character <= 0x200B);
    }
}

void skipWhiteSpace(std::string_view& text) {
    while (!text.empty()) {
        const DecodedCharacter next = decodeUtf8(text);
        if (!next.wellFormed || !isWhiteSpaceOrLineBreak(next.character)) return;
        text.remove_prefix(next.length);
    }
}

// Takes white space, a sign and white space; answers whether the sign was "-".
bool skipToDigits(std::string_view& text) {
    skipWhiteSpace(text);
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) {
        text.remove_prefix(1);
        skipWhiteSpace(text);
    }
    return negative;
}

std::size_t countDigits(std::string_view text) {
    return static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), isDigit) -
                                    text.begin());
}

template <class Integer>
Integer decimalValue(std::string_view text) {
    constexpr Integer lowest = std::numeric_limits<Integer>::min();
    const bool negative = skipToDigits(text);
    // Accumulates below zero, where one more number has room than above.
    Integer value = 0;
    for (const char character : text) {
        if (!isDigit(character)) break;
        const auto digit = static_cast<Integer>(character - '0');
        if (value < (lowest + digit) / 10)
            return negative ? lowest : std::numeric_limits<Integer>::max();
        value = static_cast<Integer>(value * 10 - digit);
    }
    if (negative) return value;
    return value == lowest ? std::numeric_limits<Integer>::max() : static_cast<Integer>(-value);
}

// The decimal exponent written after "e", saturated beyond the length of any text; 0 without one.
std::int64_t writtenExponent(std::string_view text) {
    if (!text.starts_with('e') && !text.starts_with('E')) return 0;
    text.remove_prefix(1);
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) text.remove_prefix(1);
    constexpr std::int64_t kEnough = 100'000'000'000'000'000;
    std::int64_t exponent = 0;
    for (const char character : text) {
        if (!isDigit(character)) break;
        exponent = std::min(exponent * 10 + (character - '0'), kEnough);
        if (exponent == kEnough) break;
    }
    return negative ? -exponent : exponent;
}

// Whether a number that no double can hold is too large (else it is too small).
bool isHuge(std::string_view text) {
    const std::size_t whole = countDigits(text);
    const std::string_view digits = text.substr(0, whole);
    std::string_view rest = text.substr(whole);
    std::int64_t magnitude = 0;
    if (const std::size_t leading = digits.find_first_not_of('0');
        leading != std::string_view::npos) {
        magnitude = static_cast<std::int64_t>(whole - leading);
    }
    if (rest.starts_with('.')) {
        rest.remove_prefix(1);
        const std::size_t fraction = countDigits(rest);
        if (magnitude == 0) {
            const std::size_t zeros = std::min(rest.find_first_not_of('0'), fraction);
            magnitude = -static_cast<std::int64_t>(zeros);
        }
        rest.remove_prefix(fraction);
    }
    return magnitude + writtenExponent(rest) > 0;
}

}  // namespace

std::int64_t longLongValue(std::string_view text) { return decimalValue<std::int64_t>(text); }
std::int32_t intValue(std::string_view text) { return decimalValue<std::int32_t>(text); }

double doubleValue(std::string_view text) {
    const bool negative = skipToDigits(text);
    const std::string_view afterPoint = text.substr(text.starts_with('.') ? 1 : 0);
    if (afterPoint.empty() || !isDigit(afterPoint.front())) return 0;

    double value = 0;
    const auto end = std::from_chars(text.data(), text.data() + text.size(), value);
    if (end.ec == std::errc::result_out_of_range)
        value = isHuge(text) ? std::numeric_limits<double>::infinity() : 0;
    return negative ? -value : value;
}

bool boolValue(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
    if (text.empty()) return false;
    if (std::string_view("TtYy").find(text.front()) != std::string_view::npos) return true;
    if (text.front() == '+' || text.front() == '-') text.remove_prefix(1);
    text.remove_prefix(std::min(text.find_first_not_of('0'), text.size()));
    return !text.empty() && text.front() >= '1' && text.front() <= '9';
}

}  // namespace utilia
