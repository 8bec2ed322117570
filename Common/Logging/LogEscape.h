#pragma once

#include <string>
#include <string_view>

#include "Common/Foundation/Export.h"

namespace utilia {

// The line as it may stand in a stream of lines that people read: whatever could end it, forge
// another or steer a terminal becomes visible. Line breaks and other control characters become
// "\n", "\r" or "\u001B", bytes that are no UTF-8 "\xFF", and so do the characters that turn the
// direction of text. Tabs and all other text stay.
UTILIA_EXPORT std::string escapedLogLine(std::string_view line);

}  // namespace utilia
