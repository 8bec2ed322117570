#pragma once

#include <string>
#include <string_view>

#include "Applications/utiliactl/Documents/OptionTable.h"

namespace utilia::control {

// The manual page of section 1, in the man macros of troff (man(7)).
std::string manualPage(const CommandRow& program, std::string_view version);

}  // namespace utilia::control
