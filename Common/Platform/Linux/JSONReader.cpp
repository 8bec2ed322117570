#include "Common/Platform/Linux/JSONReader.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <system_error>

#include "Common/Foundation/Numbers.h"
#include "Common/Foundation/Unicode.h"
#include "Common/Foundation/Utf8Decoder.h"

// Every tool reads the administrator's settings before its main, so this reader is small and throws
// nothing; and it knows where each key stands, because the person who edits the settings by hand is
// told the place of a mistake and of a key that is written twice. A JSON library of the usual kind
// knows the second not at all and the first only by its exceptions, and adds three times as much code
// to each process (80 kB against 28, nlohmann's without its tree). The fuzz target holds the reader
// against such a library: both must accept the same texts and read the same values.
//
// Positions are offsets while reading and become lines and columns only when somebody asks.

namespace utilia::platform {
namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

std::optional<Value> integerFrom(std::string_view digits) {
    const char* const end = digits.data() + digits.size();
    if (std::int64_t number = 0; std::from_chars(digits.data(), end, number).ec == std::errc())
        return Value(number);
    if (digits.front() == '-') return std::nullopt;
    if (std::uint64_t number = 0; std::from_chars(digits.data(), end, number).ec == std::errc())
        return Value(number);
    return std::nullopt;
}

std::size_t illFormedAt(std::string_view text) {
    std::size_t offset = 0;
    while (offset < text.size()) {
        const DecodedCharacter next = decodeUtf8(text.substr(offset));
        if (!next.wellFormed) break;
        offset += next.length;
    }
    return offset;
}

void advance(JSONPosition& position, std::string_view over) {
    for (const char c : over) {
        if (c == '\n') {
            ++position.line;
            position.column = 1;
        } else if ((static_cast<unsigned char>(c) & 0xC0u) != 0x80) {
            ++position.column;
        }
    }
}

}  // namespace

Result<Value> JSONReader::read() {
    skipBlanks();
    std::optional<Value> value;
    if (!isValidUtf8(text_)) {
        failAt(illFormedAt(text_), "the text is not UTF-8");
    } else if (at_ == text_.size()) {
        fail("there is nothing but blanks");
    } else if (!isAt('{') && !isAt('[')) {
        fail("an object or an array must come first");
    } else if ((value = readValue(0))) {
        skipBlanks();
        if (at_ < text_.size()) fail("something follows the end");
    }
    if (notes_) noteDuplicates();
    if (!complaint_) return *std::move(value);
    const JSONPosition position = positionOf(complaintAt_);
    if (notes_) notes_->error = position;
    return Error::cocoa(CocoaErrorCode::PropertyListReadCorrupt,
                        "line " + std::to_string(position.line) + ", column " +
                            std::to_string(position.column) + ": " + complaint_);
}

std::optional<Value> JSONReader::readValue(std::size_t depth) {
    if (at_ == text_.size()) return fail("the text ends where a value is missing");
    switch (text_[at_]) {
    case '{':
        return readObject(depth);
    case '[':
        return readArray(depth);
    case '"':
        if (auto string = readString()) return Value(*std::move(string));
        return std::nullopt;
    case 't':
        return expectWord("true") ? std::optional<Value>(true) : std::nullopt;
    case 'f':
        return expectWord("false") ? std::optional<Value>(false) : std::nullopt;
    case 'n':
        return expectWord("null") ? std::optional<Value>(nullptr) : std::nullopt;
    default:
        if (isAt('-') || isDigit(text_[at_])) return readNumber();
        return fail("a value is missing");
    }
}

std::optional<Value> JSONReader::readObject(std::size_t depth) {
    if (depth == kJSONMaximumDepth) return fail("arrays and objects are nested too deep");
    ++at_;
    Dictionary object;
    skipBlanks();
    if (take('}')) return Value(std::move(object));
    do {
        skipBlanks();
        const std::size_t keyAt = at_;
        if (!isAt('"')) return fail("a key in quotes is missing");
        auto key = readString();
        if (!key) return std::nullopt;
        skipBlanks();
        if (!take(':')) return fail("\":\" is missing after a key");
        skipBlanks();
        auto value = readValue(depth + 1);
        if (!value) return std::nullopt;
        if (notes_ && object.contains(*key)) duplicates_.emplace_back(keyAt, *key);
        object.set(*key, *std::move(value));
        skipBlanks();
    } while (take(','));
    if (!take('}')) return fail("\",\" or \"}\" is missing");
    return Value(std::move(object));
}

std::optional<Value> JSONReader::readArray(std::size_t depth) {
    if (depth == kJSONMaximumDepth) return fail("arrays and objects are nested too deep");
    ++at_;
    Array array;
    skipBlanks();
    if (take(']')) return Value(std::move(array));
    do {
        skipBlanks();
        auto value = readValue(depth + 1);
        if (!value) return std::nullopt;
        array.append(*std::move(value));
        skipBlanks();
    } while (take(','));
    if (!take(']')) return fail("\",\" or \"]\" is missing");
    return Value(std::move(array));
}

std::optional<Value> JSONReader::readNumber() {
    const std::size_t begin = at_;
    take('-');
    const std::size_t digits = at_;
    if (!skipDigits()) return fail("a digit is missing");
    if (text_[digits] == '0' && at_ - digits > 1)
        return failAt(digits, "a number begins with a needless 0");
    bool isInteger = true;
    if (take('.')) {
        isInteger = false;
        if (!skipDigits()) return fail("a digit is missing after \".\"");
    }
    if (isAt('e') || isAt('E')) {
        ++at_;
        isInteger = false;
        if (!take('+')) take('-');
        if (!skipDigits()) return fail("a digit is missing in the exponent");
    }
    const std::string_view number = text_.substr(begin, at_ - begin);
    if (isInteger) {
        if (auto value = integerFrom(number)) return value;
    }
    const double real = doubleValue(number);
    if (!std::isfinite(real)) return failAt(begin, "a number is too large");
    return Value(real);
}

std::optional<std::string> JSONReader::readString() {
    const std::size_t begin = at_++;
    std::string string;
    for (;;) {
        const std::size_t plain = at_;
        while (at_ < text_.size()) {
            const char c = text_[at_];
            if (c == '"' || c == '\\' || static_cast<unsigned char>(c) < 0x20) break;
            ++at_;
        }
        string.append(text_.substr(plain, at_ - plain));
        if (at_ == text_.size()) return failAt(begin, "a text has no closing quote");
        if (take('"')) return string;
        if (!take('\\')) return fail("a control character in a text must be written as an escape");
        if (!readEscape(string)) return std::nullopt;
    }
}

// Behind the backslash.
bool JSONReader::readEscape(std::string& string) {
    constexpr std::string_view kEscapes = "\"\\/bfnrt";
    constexpr std::string_view kMeanings = "\"\\/\b\f\n\r\t";
    if (take('u')) return readUnicodeEscape(string);
    const std::size_t which = at_ < text_.size() ? kEscapes.find(text_[at_]) : kEscapes.npos;
    if (which == kEscapes.npos) {
        failAt(at_ - 1, "there is no such escape");
        return false;
    }
    ++at_;
    string += kMeanings[which];
    return true;
}

// Behind "\u".
bool JSONReader::readUnicodeEscape(std::string& string) {
    const std::size_t begin = at_ - 2;
    const auto isWithin = [](unsigned unit, unsigned first) {
        return unit >= first && unit < first + 0x400;
    };
    const auto unit = readFourHexDigits();
    if (!unit) return false;
    unsigned character = *unit;
    if (isWithin(*unit, 0xD800)) {
        const auto low = take('\\') && take('u') ? readFourHexDigits() : std::nullopt;
        if (!low || !isWithin(*low, 0xDC00)) {
            failAt(begin, "half a surrogate pair stands alone");
            return false;
        }
        character = 0x10000 + ((*unit - 0xD800) << 10) + (*low - 0xDC00);
    } else if (isWithin(*unit, 0xDC00)) {
        failAt(begin, "half a surrogate pair stands alone");
        return false;
    }
    appendUtf8(string, character);
    return true;
}

std::optional<unsigned> JSONReader::readFourHexDigits() {
    const std::string_view digits = text_.substr(at_, 4);
    unsigned unit = 0;
    const auto end = std::from_chars(digits.data(), digits.data() + digits.size(), unit, 16);
    if (digits.size() < 4 || end.ptr != digits.data() + 4)
        return fail("four hexadecimal digits must follow \"\\u\"");
    at_ += 4;
    return unit;
}

bool JSONReader::expectWord(std::string_view word) {
    if (!text_.substr(at_).starts_with(word)) {
        fail("a value is missing");
        return false;
    }
    at_ += word.size();
    return true;
}

bool JSONReader::skipDigits() {
    const std::size_t begin = at_;
    while (at_ < text_.size() && isDigit(text_[at_])) ++at_;
    return at_ > begin;
}

void JSONReader::skipBlanks() {
    while (isAt(' ') || isAt('\n') || isAt('\t') || isAt('\r')) ++at_;
}

bool JSONReader::take(char c) {
    if (!isAt(c)) return false;
    ++at_;
    return true;
}

std::nullopt_t JSONReader::failAt(std::size_t offset, const char* what) {
    if (!complaint_) {
        complaint_ = what;
        complaintAt_ = offset;
    }
    return std::nullopt;
}

JSONPosition JSONReader::positionOf(std::size_t offset) const {
    JSONPosition position{1, 1};
    advance(position, text_.substr(0, offset));
    return position;
}

// In one walk over the text, however many there are; objects end in another order than their keys
// stand.
void JSONReader::noteDuplicates() {
    std::sort(duplicates_.begin(), duplicates_.end());
    JSONPosition position{1, 1};
    std::size_t reached = 0;
    for (auto& [offset, key] : duplicates_) {
        advance(position, text_.substr(reached, offset - reached));
        reached = offset;
        notes_->duplicateKeys.push_back({std::move(key), position});
    }
}

}  // namespace utilia::platform
