#include "Applications/utiliactl/CollectedLog.h"

#include <mutex>

#include "Common/Logging/Log.h"

namespace utilia::control {

struct CollectedLog::Sink final : LogSink {
    bool write(std::string_view line) noexcept override try {
        const std::lock_guard guard(mutex);
        last = line;
        return true;
    } catch (...) {
        return false;
    }

    std::mutex mutex;
    std::string last;
};

CollectedLog::CollectedLog() : sink_(std::make_shared<Sink>()) { setLogSink(sink_); }

CollectedLog::~CollectedLog() { setLogSink(nullptr); }

std::string CollectedLog::lastLine() const {
    const std::lock_guard guard(sink_->mutex);
    return sink_->last;
}

}  // namespace utilia::control
