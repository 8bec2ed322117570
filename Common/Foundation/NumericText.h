#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

#include "Common/Foundation/ComparisonResult.h"
#include "Common/Foundation/Export.h"

// Numbers in texts, as the original platform finds and compares them.
//
// Texts are UTF-8; each ill-formed sequence counts as one U+FFFD, and NUL is a character like any
// other. Time is linear in the length of the texts, whatever is in them, and nothing is allocated
// for comparing.
//
// Threads: any.

namespace utilia {

// What has to be known of Unicode's characters. Foundation has no tables of its own; the operating
// system's are in Common/Platform/CharacterProperties.h.
struct CharacterProperties {
    static constexpr std::size_t kLongestDecomposition = 4;

    // Of the general category Nd, in any script.
    bool (*isDecimalDigit)(char32_t character) = nullptr;
    // 0 for everything that begins a character of the reader's.
    int (*combiningClass)(char32_t character) = nullptr;
    // The full canonical decomposition, at least one character; answers how many there are.
    std::size_t (*decompose)(char32_t character,
                             char32_t (&decomposition)[kLongestDecomposition]) = nullptr;
};

// The longest possible runs of decimal digits of any script, in order: what the regular expression
// \d+ matches. No more than `maximum` are looked for. The runs point into `text`.
UTILIA_EXPORT std::vector<std::string_view> digitRuns(std::string_view text, std::size_t maximum,
                                                      const CharacterProperties& properties);

// Compares with numeric search. Where both texts have ASCII digits, the two runs are compared as
// numbers of 64 bits (longer ones keep their lower 64 bits) and leading zeros mean nothing; all
// else goes by code point, canonically equivalent spellings being the same. When one text ends, it
// is the lesser. Signs, points, case and language have no part in it.
//
// Equivalence is seen within one character and the 60 or so combining marks that follow it.
UTILIA_EXPORT ComparisonResult compareNumerically(std::string_view left, std::string_view right,
                                                  const CharacterProperties& properties);

}  // namespace utilia
