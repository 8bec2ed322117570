#pragma once

#include <memory>
#include <string>

#include "Common/Logging/Log.h"

// The sinks that makeSystemLogSink() is made of.
//
// Threads: any; the sinks as LogSink says.

namespace utilia::platform {

// The journal's native socket; null when nobody listens at the path.
std::shared_ptr<LogSink> makeJournalLogSink(const std::string& socketPath,
                                            const std::string& processName);

// An open file, pipe, terminal or socket, whose owner keeps it open.
std::shared_ptr<LogSink> makeDescriptorLogSink(int descriptor, const std::string& processName);

// The journal when somebody listens at the path as the first line comes, else the descriptor; under
// this process's name.
std::shared_ptr<LogSink> makeJournalOrDescriptorLogSink(const std::string& socketPath,
                                                        int descriptor);

}  // namespace utilia::platform
