#include "Common/Platform/CharacterProperties.h"

#include <algorithm>
#include <iterator>

#include <glib.h>

namespace utilia::platform {
namespace {

bool isDecimalDigit(char32_t character) { return g_unichar_isdigit(character) != FALSE; }

int combiningClass(char32_t character) { return g_unichar_combining_class(character); }

std::size_t decompose(char32_t character,
                      char32_t (&decomposition)[CharacterProperties::kLongestDecomposition]) {
    gunichar parts[CharacterProperties::kLongestDecomposition] = {};
    const gsize count = g_unichar_fully_decompose(character, FALSE, parts, std::size(parts));
    // What a later version of Unicode may take into more parts is left as it is.
    if (count == 0 || count > std::size(parts)) {
        decomposition[0] = character;
        return 1;
    }
    std::copy_n(parts, count, decomposition);
    return count;
}

constexpr CharacterProperties kProperties{isDecimalDigit, combiningClass, decompose};

}  // namespace

const CharacterProperties& systemCharacterProperties() { return kProperties; }

}  // namespace utilia::platform
