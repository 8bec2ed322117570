#include "Common/Logging/LogEscape.h"

#include "Common/Foundation/Utf8Decoder.h"

namespace utilia {
namespace {

void appendHexadecimal(std::string& text, char32_t value, int digits) {
    for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4)
        text.push_back("0123456789ABCDEF"[value >> shift & 0xF]);
}

bool mustBeShown(char32_t character) {
    if (character < 0x20) return character != '\t';
    if (character < 0x7F) return false;
    return character <= 0x9F                                 // DEL and the C1 controls
           || character == 0x2028 || character == 0x2029     // line and paragraph separator
           || (character >= 0x202A && character <= 0x202E)   // embedding and override of direction
           || (character >= 0x2066 && character <= 0x2069);  // isolates
}

}  // namespace

std::string escapedLogLine(std::string_view line) {
    std::string text;
    text.reserve(line.size());
    while (!line.empty()) {
        const DecodedCharacter next = decodeUtf8(line);
        const std::string_view bytes = line.substr(0, next.length);
        line.remove_prefix(next.length);
        if (!next.wellFormed) {
            for (const char byte : bytes) {
                text.append("\\x");
                appendHexadecimal(text, static_cast<unsigned char>(byte), 2);
            }
        } else if (next.character == '\n') {
            text.append("\\n");
        } else if (next.character == '\r') {
            text.append("\\r");
        } else if (mustBeShown(next.character)) {
            text.append("\\u");
            appendHexadecimal(text, next.character, 4);
        } else {
            text.append(bytes);
        }
    }
    return text;
}

}  // namespace utilia
