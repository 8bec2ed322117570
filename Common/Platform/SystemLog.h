#pragma once

#include <memory>
#include <string>

#include "Common/Foundation/Export.h"
#include "Common/Logging/Log.h"

namespace utilia::platform {

// Lines to the journal where there is one, else to stderr, each with the process's name. A receiver that does not
// read costs the lines it cannot take, never time. The journal is looked for with the first line.
UTILIA_EXPORT std::shared_ptr<LogSink> makeSystemLogSink();

// The parts, for tests: the journal's native socket at a path (null when nobody listens there), and a descriptor.
std::shared_ptr<LogSink> makeJournalLogSink(const std::string& socketPath, const std::string& processName);
std::shared_ptr<LogSink> makeDescriptorLogSink(int descriptor, const std::string& processName);

}  // namespace utilia::platform
