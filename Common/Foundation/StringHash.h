#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "Common/Foundation/Export.h"

namespace utilia {

// The original platform's string hash, by which agent and tools derive the same port name from the same path.
//
// Units: UTF-16 code units of the text, at most 96 of them (of longer texts three windows of 32). Neither
// normalised nor case-folded. Source: the published CoreFoundation string hash, unsigned form.
UTILIA_EXPORT std::uint64_t stringHash(std::u16string_view text);

// The same for UTF-8; ill-formed bytes count as U+FFFD.
UTILIA_EXPORT std::uint64_t stringHash(std::string_view utf8);

// The hash as it stands in names: lower-case hexadecimal, no prefix, no leading zeros ("0" for zero).
UTILIA_EXPORT std::string hexadecimal(std::uint64_t value);

}  // namespace utilia
