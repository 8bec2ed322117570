#pragma once

#include <memory>

#include "Common/Foundation/Export.h"
#include "Common/Logging/Log.h"

namespace utilia::platform {

// Lines to the system's log where there is one, else to stderr, each with the process's name. A
// receiver that does not read costs the lines it cannot take, never time. Where lines go is decided
// with the first one. From the first call on, the log also stands a fork among several threads.
//
// Threads: any; the sink as LogSink says.
UTILIA_EXPORT std::shared_ptr<LogSink> makeSystemLogSink();

}  // namespace utilia::platform
