#pragma once

#include <string>

#include "Applications/utiliactl/Documents/OptionTable.h"

namespace utilia::control {

// Completion of commands, options, choices and file names.

// For bash; needs no further library.
std::string bashCompletion(const CommandRow& program);
// For zsh's completion system, as an autoloaded function of the name "_" + the program's.
std::string zshCompletion(const CommandRow& program);
std::string fishCompletion(const CommandRow& program);

}  // namespace utilia::control
