#pragma once

#include <cstddef>

#include "Common/Foundation/Result.h"
#include "Common/Platform/Linux/AlertQuestion.h"

namespace utilia::platform {

// Asks as text on the controlling terminal and answers the button's index: a number, or Return
// alone for the first button; what is neither is asked again, and the end of input (Control-D) is
// the last button. The terminal's settings stay as they are.
//
// Fails when there is no terminal, when this process is in the terminal's background, and when the
// terminal goes away meanwhile.
Result<std::size_t> askOnTerminal(const AlertQuestion& question);

}  // namespace utilia::platform
