#include "Common/Logging/Log.h"

#include <atomic>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <mutex>

#include <string>

#include "Common/Logging/LogEscape.h"
#include "Common/Logging/LogFormatter.h"

// Two locks keep a line from being lost without a word and from waiting for the wrong thing:
//   - `settings` guards the sink and the probe. It is held for a copy of a pointer only, so that a
//   sink may replace
//     the sink, or ask whether extended logging is on, while it writes.
//   - `delivery` lets one thread at a time call the sink, with the count of lost lines and the line
//   itself in one go.
// A sink that logs would come round to `delivery` again on the same thread: such a line is counted
// as lost instead. So is one for which there is no memory. The count is taken down only by what a
// sink has accepted, so lines that are lost while it is being said are said later.

namespace utilia {
namespace {

constinit std::atomic<std::uint64_t> droppedLines{0};
constinit thread_local bool insideSink = false;

class PlainSink final : public LogSink {
public:
    bool write(std::string_view line) noexcept override {
        try {
            const std::string text = escapedLogLine(line) + '\n';
            return std::fwrite(text.data(), 1, text.size(), stderr) == text.size();
        } catch (...) {
            return false;
        }
    }
};

using Probe = std::function<bool()>;

struct LogState {
    std::mutex settings;
    std::shared_ptr<LogSink> sink = std::make_shared<PlainSink>();
    std::shared_ptr<const Probe> probe;
    std::mutex delivery;
};

// Never destroyed: lines are written until the very end of the process.
LogState& logState() {
    static LogState* const state = new LogState;
    return *state;
}

class InsideSink final {
public:
    InsideSink() { insideSink = true; }
    ~InsideSink() { insideSink = false; }
    InsideSink(const InsideSink&) = delete;
    InsideSink& operator=(const InsideSink&) = delete;
};

// Says how many lines were lost. Needs no memory, which may be why they were. False when the sink
// did not take it.
bool reportDropped(LogSink& sink) {
    const std::uint64_t count = droppedLines.load();
    if (count == 0) return true;
    constexpr std::string_view kOne = "1 earlier line was dropped";
    constexpr std::string_view kMany = " earlier lines were dropped";
    std::array<char, 20 + kMany.size()> text;
    std::string_view note = kOne;
    if (count > 1) {
        char* const end = std::to_chars(text.data(), text.data() + 20, count).ptr;
        const std::size_t length =
            static_cast<std::size_t>(end - text.data()) + kMany.copy(end, kMany.size());
        note = {text.data(), length};
    }
    if (!sink.write(note)) return false;
    droppedLines.fetch_sub(count);
    return true;
}

bool deliver(std::string_view line) {
    LogState& state = logState();
    const std::lock_guard delivery(state.delivery);
    std::shared_ptr<LogSink> sink;
    {
        const std::lock_guard settings(state.settings);
        sink = state.sink;
    }
    const InsideSink inside;
    const bool taken = reportDropped(*sink) && sink->write(line);
    sink.reset();  // still inside: a sink that was replaced may log while it ends
    return taken;
}

}  // namespace

void setLogSink(std::shared_ptr<LogSink> sink) {
    if (!sink) sink = std::make_shared<PlainSink>();
    LogState& state = logState();
    const std::lock_guard settings(state.settings);
    state.sink.swap(sink);
    // The old one ends after the lock: parameters outlive local variables.
}

void setExtendedLoggingProbe(std::function<bool()> probe) {
    auto shared = probe ? std::make_shared<const Probe>(std::move(probe)) : nullptr;
    LogState& state = logState();
    {
        const std::lock_guard settings(state.settings);
        state.probe.swap(shared);
    }
}

bool KUIsExtendedLoggingOn() {
    try {
        LogState& state = logState();
        std::shared_ptr<const Probe> probe;
        {
            const std::lock_guard settings(state.settings);
            probe = state.probe;
        }
        return probe && (*probe)();
    } catch (...) {
        return false;
    }
}

void logFormatted(std::string_view format, std::span<const LogArgument> arguments) noexcept {
    try {
        if (!insideSink && deliver(formatLogLine(format, arguments))) return;
    } catch (...) {
        // Counted below: there is nobody to tell.
    }
    droppedLines.fetch_add(1);
}

}  // namespace utilia
