#pragma once

#include "Common/Foundation/Result.h"
#include "Common/Foundation/Value.h"

namespace utilia::control {

// The content of the suite that agent and tools share, read under its lock. Fails when the group's
// container cannot be used, for which the framework's log line on standard error has the reason.
Result<Dictionary> readSharedStore();

}  // namespace utilia::control
