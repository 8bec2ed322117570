#pragma once

#include <span>
#include <string>

#include "Common/Foundation/Export.h"

namespace utilia {

// A list of texts as the original platform prints an array: "(", each element on a line of its own
// behind four blanks, "," after all but the last, ")". An element stands in quotes when it is empty
// or holds anything but ASCII letters and digits; in quotes, '"', '\' and control characters are
// escaped, and what is not ASCII is written as \Uxxxx, one for each UTF-16 unit.
//
// Threads: any.
UTILIA_EXPORT std::string descriptionOfArray(std::span<const std::string> elements);

}  // namespace utilia
