#include "Common/UtiliaCommon/AdminSettings/KAVKeyValueHelper.h"

#include <algorithm>

#include "Common/Foundation/Utf8Decoder.h"
#include "Common/Logging/Log.h"
#include "Common/UtiliaCommon/AdminSettings/KAVAdminStorage.h"

namespace utilia {
namespace {

// White space of the original platform's character set of that name, which has no line breaks.
bool isBlank(char32_t character) {
    switch (character) {
    case 0x09:
    case 0x20:
    case 0xA0:
    case 0x1680:
    case 0x202F:
    case 0x205F:
    case 0x3000:
        return true;
    default:
        return character >= 0x2000 && character <= 0x200B;
    }
}

std::string trimmed(std::string_view text) {
    std::size_t begin = text.size();
    std::size_t end = 0;
    for (std::size_t at = 0; at < text.size();) {
        const DecodedCharacter next = decodeUtf8(text.substr(at));
        if (!next.wellFormed || !isBlank(next.character)) {
            begin = std::min(begin, at);
            end = at + next.length;
        }
        at += next.length;
    }
    return std::string(begin < end ? text.substr(begin, end - begin) : std::string_view());
}

std::vector<std::string> piecesOf(std::string_view text) {
    std::vector<std::string> pieces;
    for (;;) {
        const std::size_t comma = text.find(',');
        pieces.push_back(trimmed(text.substr(0, comma)));
        if (comma == std::string_view::npos) return pieces;
        text.remove_prefix(comma + 1);
    }
}

}  // namespace

bool KAVKeyValueHelper::arrayFromWhiteListString(std::optional<std::string_view> string,
                                                 std::optional<std::vector<std::string>>* outArray,
                                                 std::int64_t* error) {
    if (!outArray || !error) return false;
    outArray->reset();
    *error = -1;
    if (!string) return false;
    std::vector<std::string> pieces = piecesOf(*string);
    const auto subset =
        std::find(pieces.begin(), pieces.end(), kKAVWhiteToolsList_BusinessToolsetValue);
    if (subset != pieces.end() && pieces.size() > 1) {
        KULogVariadic("Ambigius white-tools-list parameters. Value '%@' must be used singly.",
                      kKAVWhiteToolsList_BusinessToolsetValue);
        return false;
    }
    if (pieces.size() > 1 || !pieces.front().empty()) *outArray = std::move(pieces);
    *error = 0;
    return true;
}

}  // namespace utilia
