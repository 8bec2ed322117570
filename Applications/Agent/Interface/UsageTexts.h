#pragma once

#include <string_view>

namespace utilia::agent {

// Whether what is recorded is sent each week: usage reporting is on, and this build sends reports at all.
bool isReportingOn();

// The key of the sentence that says what is recorded and sent as things stand.
std::string_view usageExplanation();

}  // namespace utilia::agent
