#pragma once

#include <string_view>

#include "Common/Foundation/Export.h"

namespace utilia::platform {

// Whether two texts differ in letter case only, as the original platform compares them: full case
// folding ("ß" equals "SS") and canonical equivalence ("é" equals "e" and its accent), no locale.
// Text that is not UTF-8 compares by ASCII letters alone.
//
// Threads: any.
UTILIA_EXPORT bool isCaseInsensitiveEqual(std::string_view left, std::string_view right);

}  // namespace utilia::platform
