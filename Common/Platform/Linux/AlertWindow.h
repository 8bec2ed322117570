#pragma once

#include <cstddef>

#include "Common/Foundation/Result.h"
#include "Common/Platform/Linux/AlertQuestion.h"

namespace utilia::platform {

// Asks in a window, by the auxiliary executable utilia-alert of the framework's own bundle; waits
// for the answer, and answers the button's index. Unavailable when there is no display; any other
// error when the window could not be shown or ended without an answer. The child is reaped.
Result<std::size_t> askInAlertWindow(const AlertQuestion& question);

}  // namespace utilia::platform
