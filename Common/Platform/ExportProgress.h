#pragma once

#include <functional>

namespace utilia::platform {

// Is told how far long work has come: the share that is done, from 0 to 1, never less than before.
// It is called now and then on the thread that works, and ends the work, which then has no result,
// by answering false. An exception that it throws ends the work as well, and goes no further.
using ExportProgress = std::function<bool(double done)>;

}  // namespace utilia::platform
