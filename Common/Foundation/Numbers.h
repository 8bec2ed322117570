#pragma once

#include <cstdint>
#include <string_view>

#include "Common/Foundation/Export.h"

// Numbers out of UTF-8 text, by the rules of the original platform's string class: white space and
// line breaks, one sign, white space again, then as many ASCII digits as there are. What follows is
// ignored, no digit answers 0, and a number out of range answers the nearest end of the range. Time
// is linear in the length of the text.

namespace utilia {

UTILIA_EXPORT std::int64_t longLongValue(std::string_view text);
UTILIA_EXPORT std::int32_t intValue(std::string_view text);

// With a fraction and an exponent; no hexadecimal form, no "inf" and no "nan".
UTILIA_EXPORT double doubleValue(std::string_view text);

// True when the text begins, after spaces and tabs, with one of T t Y y; or with a digit that is
// not zero, after at most one sign and any zeros.
UTILIA_EXPORT bool boolValue(std::string_view text);

}  // namespace utilia
