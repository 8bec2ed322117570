#pragma once

#include <string>
#include <string_view>

#include "Common/Foundation/Export.h"

namespace utilia {

// Well-formed UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
UTILIA_EXPORT bool isValidUtf8(std::string_view text);

// The character is at most U+10FFFF.
UTILIA_EXPORT void appendUtf8(std::string& text, char32_t character);

// Each ill-formed sequence (maximal subpart) becomes one U+FFFD.
UTILIA_EXPORT std::u16string utf16FromUtf8(std::string_view text);
// Lone surrogates become U+FFFD.
UTILIA_EXPORT std::string utf8FromUtf16(std::u16string_view text);

}  // namespace utilia
