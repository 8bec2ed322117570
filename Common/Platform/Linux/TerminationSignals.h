#pragma once

#include <functional>
#include <memory>

#include "Common/Foundation/Result.h"

namespace utilia::platform {

// Turns SIGTERM, SIGINT and SIGHUP into a call on the main loop. Signals that come while one waits
// to be served are one call. A signal that the process ignores (nohup, shell background jobs) or
// handles itself is left as it is.
//
// A forked child that has not yet called exec dies of these signals as if nothing were installed.
//
// For the life of the process: only the first call installs anything. Threads: the main thread.
Result<void> installTerminationSignals(std::function<void()> onSignal);

}  // namespace utilia::platform
