#pragma once

#include <span>
#include <string>
#include <string_view>

#include "Common/Logging/LogArgument.h"

namespace utilia {

// Fills a format with its arguments. Placeholders: %@ %s %d %u %ld %lu %lx %lld %f %g %%.
//
// %@ takes any argument (numbers as decimal, nil as "(null)"), %s text and nil; %d %ld %lld signed
// and %u %lu %lx unsigned integers (an integer of the other signedness is taken when it fits); %d
// and %u are 64 bits wide here; %f prints six decimals and %g six significant digits, without
// locale. What does not fit leaves a marker in the line instead: "<%d: text>" for a wrong type,
// "<%d: missing>" for a missing argument, "<%q?>" for an unknown placeholder, and " <extra: …>" at
// the end for each argument that no placeholder took.
// Line breaks and other control characters of arguments are kept; sinks decide what they do with
// them.
//
// Threads: any.
UTILIA_EXPORT std::string formatLogLine(std::string_view format,
                                        std::span<const LogArgument> arguments);

}  // namespace utilia
