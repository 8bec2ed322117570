#include "Common/UtiliaCommon/CEP/AttributeNames.h"

#include <algorithm>
#include <array>
#include <utility>

#include "Common/Foundation/Utf8Decoder.h"

namespace utilia {
namespace {

constexpr std::array<std::string_view, 5> kNamesOfEvent = {"timestamp", "tool", "toollocation",
                                                           "toolversion", "action"};

// An attribute of this name would declare a namespace.
constexpr std::string_view kNamespaceDeclaration = "xmlns";

using Range = std::pair<char32_t, char32_t>;

// XML 1.0, fifth edition, production 4, without the colon.
constexpr std::array<Range, 15> kFirstCharacters = {{{'A', 'Z'},
                                                     {'_', '_'},
                                                     {'a', 'z'},
                                                     {0xC0, 0xD6},
                                                     {0xD8, 0xF6},
                                                     {0xF8, 0x2FF},
                                                     {0x370, 0x37D},
                                                     {0x37F, 0x1FFF},
                                                     {0x200C, 0x200D},
                                                     {0x2070, 0x218F},
                                                     {0x2C00, 0x2FEF},
                                                     {0x3001, 0xD7FF},
                                                     {0xF900, 0xFDCF},
                                                     {0xFDF0, 0xFFFD},
                                                     {0x10000, 0xEFFFF}}};
// Production 4a: these besides.
constexpr std::array<Range, 5> kLaterCharacters = {
    {{'-', '.'}, {'0', '9'}, {0xB7, 0xB7}, {0x300, 0x36F}, {0x203F, 0x2040}}};

template <std::size_t Count>
bool isIn(const std::array<Range, Count>& ranges, char32_t character) {
    return std::any_of(ranges.begin(), ranges.end(), [character](const Range& range) {
        return character >= range.first && character <= range.second;
    });
}

constexpr auto kPlainNameCharacters = [] {
    std::array<bool, 256> plain{};
    for (std::size_t c = 'A'; c <= 'Z'; ++c) plain[c] = plain[c + 'a' - 'A'] = true;
    for (std::size_t c = '0'; c <= '9'; ++c) plain[c] = true;
    plain['_'] = plain['-'] = plain['.'] = true;
    return plain;
}();

bool isSimple(const Value& value) { return !value.array() && !value.dictionary(); }

}  // namespace

bool isTaken(std::string_view name, NamesTaken taken) {
    return taken == NamesTaken::OfEvent &&
           std::find(kNamesOfEvent.begin(), kNamesOfEvent.end(), name) != kNamesOfEvent.end();
}

bool isPlainName(std::string_view key) {
    if (key.empty() || key.size() > kLongestName || key == kNamespaceDeclaration) return false;
    const char first = key[0];
    if ((first >= '0' && first <= '9') || first == '-' || first == '.') return false;
    return std::all_of(key.begin(), key.end(),
                       [](char c) { return kPlainNameCharacters[static_cast<unsigned char>(c)]; });
}

std::string xmlName(std::string_view key) {
    std::string name;
    while (!key.empty()) {
        const DecodedCharacter next = decodeUtf8(key);
        const bool isFirst = next.wellFormed && isIn(kFirstCharacters, next.character);
        const bool isLater = next.wellFormed && isIn(kLaterCharacters, next.character);
        std::string spelling = isFirst || isLater ? std::string(key.substr(0, next.length)) : "_";
        if (name.empty() && isLater) spelling.insert(0, 1, '_');
        if (name.size() + spelling.size() > kLongestName) break;
        name += spelling;
        key.remove_prefix(next.length);
    }
    if (name.empty()) return "_";
    if (name == kNamespaceDeclaration) return "_" + name;
    return name;
}

AttributeNames::AttributeNames(const Dictionary& dictionary, NamesTaken taken) : taken_(taken) {
    for (const auto& [key, value] : dictionary) {
        if (isSimple(value) && !isTaken(key, taken) && xmlName(key) == key) used_.insert(key);
    }
}

std::string AttributeNames::nameFor(std::string_view key) {
    const std::string name = xmlName(key);
    if (name == key && !isTaken(key, taken_)) return name;
    std::string candidate = name;
    unsigned& last = lastNumbers_.try_emplace(name, 1).first->second;
    while (isTaken(candidate, taken_) || !used_.insert(candidate).second)
        candidate = name + "_" + std::to_string(++last);
    return candidate;
}

}  // namespace utilia
