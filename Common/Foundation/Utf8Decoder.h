#pragma once

#include <cstddef>
#include <string_view>

namespace utilia {

// One step through UTF-8 text.
struct DecodedCharacter {
    char32_t character = 0;  // only when well-formed
    std::size_t length =
        1;  // bytes to step over: of an ill-formed sequence its maximal subpart, at least 1
    bool wellFormed = false;
};

// The first character of a text that is not empty. Overlong forms, surrogates and what lies above
// U+10FFFF are ill-formed; the bounds of the second byte (Unicode, table 3-7) exclude them before
// any bits are put together.
inline DecodedCharacter decodeUtf8(std::string_view text) {
    const auto byte = [text](std::size_t index) { return static_cast<unsigned char>(text[index]); };
    const unsigned char first = byte(0);
    if (first < 0x80) return {first, 1, true};

    std::size_t length = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    char32_t character = 0;
    if (first >= 0xC2 && first <= 0xDF) {
        length = 2;
        character = first & 0x1Fu;
    } else if (first >= 0xE0 && first <= 0xEF) {
        length = 3;
        character = first & 0x0Fu;
        if (first == 0xE0) low = 0xA0;
        if (first == 0xED) high = 0x9F;
    } else if (first >= 0xF0 && first <= 0xF4) {
        length = 4;
        character = first & 0x07u;
        if (first == 0xF0) low = 0x90;
        if (first == 0xF4) high = 0x8F;
    } else {
        return {0, 1, false};
    }
    for (std::size_t i = 1; i < length; ++i) {
        if (i >= text.size() || byte(i) < low || byte(i) > high) return {0, i, false};
        character = character << 6 | (byte(i) & 0x3Fu);
        low = 0x80;
        high = 0xBF;
    }
    return {character, length, true};
}

}  // namespace utilia
