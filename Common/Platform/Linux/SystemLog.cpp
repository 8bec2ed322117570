#include "Common/Platform/SystemLog.h"

#include <pthread.h>
#include <unistd.h>

#include "Common/Logging/LogFork.h"
#include "Common/Platform/Linux/LogSinks.h"
#include "Common/Platform/ProcessInfo.h"

namespace utilia::platform {
namespace {

// Looks for the journal with the first line. Every tool installs this sink while it is loaded, and
// most never have anything to say.
class JournalOrDescriptorLogSink final : public LogSink {
public:
    JournalOrDescriptorLogSink(const std::string& socketPath, int descriptor)
        : socketPath_(socketPath), descriptor_(descriptor) {}

    bool write(std::string_view line) noexcept override {
        try {
            if (!sink_) sink_ = open();
            return sink_->write(line);
        } catch (...) {
            return false;  // no memory for the sink; the next line tries again
        }
    }

private:
    std::shared_ptr<LogSink> open() const {
        const std::string& name = ProcessInfo::processName();
        if (auto journal = makeJournalLogSink(socketPath_, name)) return journal;
        return makeDescriptorLogSink(descriptor_, name);
    }

    const std::string socketPath_;
    const int descriptor_;
    std::shared_ptr<LogSink> sink_;
};

}  // namespace

std::shared_ptr<LogSink> makeJournalOrDescriptorLogSink(const std::string& socketPath,
                                                        int descriptor) {
    return std::make_shared<JournalOrDescriptorLogSink>(socketPath, descriptor);
}

std::shared_ptr<LogSink> makeSystemLogSink() {
    // Without memory for the handlers a forked child may wait for a thread that it does not have.
    [[maybe_unused]] static const int handlers =
        pthread_atfork(prepareLogForFork, resumeLogAfterFork, resumeLogInForkedChild);
    return makeJournalOrDescriptorLogSink("/run/systemd/journal/socket", STDERR_FILENO);
}

}  // namespace utilia::platform
