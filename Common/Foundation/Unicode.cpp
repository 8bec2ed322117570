#include "Common/Foundation/Unicode.h"

#include "Common/Foundation/Utf8Decoder.h"

namespace utilia {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

bool isHighSurrogate(char16_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
bool isLowSurrogate(char16_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

}  // namespace

void appendUtf8(std::string& text, char32_t character) {
    const auto put = [&text](char32_t byte) { text.push_back(static_cast<char>(byte)); };
    if (character < 0x80) {
        put(character);
    } else if (character < 0x800) {
        put(0xC0 | character >> 6);
        put(0x80 | (character & 0x3F));
    } else if (character < 0x10000) {
        put(0xE0 | character >> 12);
        put(0x80 | (character >> 6 & 0x3F));
        put(0x80 | (character & 0x3F));
    } else {
        put(0xF0 | character >> 18);
        put(0x80 | (character >> 12 & 0x3F));
        put(0x80 | (character >> 6 & 0x3F));
        put(0x80 | (character & 0x3F));
    }
}

bool isValidUtf8(std::string_view text) {
    while (!text.empty()) {
        const DecodedCharacter next = decodeUtf8(text);
        if (!next.wellFormed) return false;
        text.remove_prefix(next.length);
    }
    return true;
}

std::u16string utf16FromUtf8(std::string_view text) {
    std::u16string units;
    units.reserve(text.size());
    while (!text.empty()) {
        const DecodedCharacter next = decodeUtf8(text);
        text.remove_prefix(next.length);
        const char32_t character = next.wellFormed ? next.character : kReplacement;
        if (character < 0x10000) {
            units.push_back(static_cast<char16_t>(character));
        } else {
            units.push_back(static_cast<char16_t>(0xD800 + ((character - 0x10000) >> 10)));
            units.push_back(static_cast<char16_t>(0xDC00 + ((character - 0x10000) & 0x3FF)));
        }
    }
    return units;
}

std::string utf8FromUtf16(std::u16string_view text) {
    std::string bytes;
    bytes.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char16_t unit = text[i];
        if (isHighSurrogate(unit) && i + 1 < text.size() && isLowSurrogate(text[i + 1])) {
            const char32_t high = static_cast<char32_t>(unit) - 0xD800;
            const char32_t low = static_cast<char32_t>(text[++i]) - 0xDC00;
            appendUtf8(bytes, 0x10000 + (high << 10 | low));
        } else if (isHighSurrogate(unit) || isLowSurrogate(unit)) {
            appendUtf8(bytes, kReplacement);
        } else {
            appendUtf8(bytes, unit);
        }
    }
    return bytes;
}

}  // namespace utilia
