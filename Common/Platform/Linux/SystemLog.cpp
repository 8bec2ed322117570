#include "Common/Platform/SystemLog.h"

#include <unistd.h>

#include "Common/Platform/ProcessInfo.h"

namespace utilia::platform {
namespace {

// Looks for the journal with the first line. Every tool installs this sink while it is loaded, and
// most never have anything to say.
class SystemLogSink final : public LogSink {
public:
    bool write(std::string_view line) noexcept override {
        try {
            if (!sink_) sink_ = open();
            return sink_->write(line);
        } catch (...) {
            return false;  // no memory for the sink; the next line tries again
        }
    }

private:
    static std::shared_ptr<LogSink> open() {
        const std::string& name = ProcessInfo::processName();
        if (auto journal = makeJournalLogSink("/run/systemd/journal/socket", name)) return journal;
        return makeDescriptorLogSink(STDERR_FILENO, name);
    }

    std::shared_ptr<LogSink> sink_;
};

}  // namespace

std::shared_ptr<LogSink> makeSystemLogSink() { return std::make_shared<SystemLogSink>(); }

}  // namespace utilia::platform
