#include "Common/Platform/SystemLog.h"

#include <unistd.h>

#include "Common/Platform/ProcessInfo.h"

namespace utilia::platform {

std::shared_ptr<LogSink> makeSystemLogSink() {
    const std::string& name = ProcessInfo::processName();
    if (auto journal = makeJournalLogSink("/run/systemd/journal/socket", name)) return journal;
    return makeDescriptorLogSink(STDERR_FILENO, name);
}

}  // namespace utilia::platform
