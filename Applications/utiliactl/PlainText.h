#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Common/Foundation/Value.h"

// What people read. Its form may change from version to version; scripts take --json.

namespace utilia::control {

// A value as an indented outline, with a line end.
std::string outline(const Value& value);

// Columns, each as wide as its widest text, with a line of headings. Control characters are shown
// as "?". Without rows: `whenEmpty` alone.
std::string table(const std::vector<std::string>& headings,
                  const std::vector<std::vector<std::string>>& rows, std::string_view whenEmpty);

// Text that cannot disturb a terminal: control characters are shown as "?".
std::string harmless(std::string text);
// The same in quotes, with control characters as escapes.
std::string inQuotes(std::string_view text);

}  // namespace utilia::control
