#include "Common/Logging/Log.h"

#include <atomic>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <new>
#include <string>

#include "Common/Logging/LogEscape.h"
#include "Common/Logging/LogFork.h"
#include "Common/Logging/LogFormatter.h"

// One lock guards the settings and says whose turn it is; it is never held while the sink writes,
// so that a sink may replace the sink, or ask whether extended logging is on.
//
// One thread at a time has its turn: the count of lost lines and the line itself in one go. Others
// wait for theirs, but only for a second: a turn that has been waited for in vain is overdue, and
// until it ends no line begins to wait for it.
//
// A turn that another thread had when the process forked never ends in the child, so it is overdue
// there from the start. Only the lock is held across the fork and not the turn: a fork must not
// wait for a sink that is stuck.
//
// A line that does not get its turn, that the sink refuses, that the sink itself logs (its turn
// would come after its own end), or that there is no memory for is counted. The count is taken down
// only by what a sink has accepted, so lines that are lost while it is being said are said later.

namespace utilia {
namespace {

constinit std::atomic<std::uint64_t> droppedLines{0};
constinit thread_local bool insideSink = false;

// A sink is done in microseconds; this is for threads that do not get the processor while they are
// in one.
constexpr std::chrono::seconds kLongestWait{1};

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
    std::mutex lock;
    std::shared_ptr<LogSink> sink = std::make_shared<PlainSink>();
    std::shared_ptr<const Probe> probe;
    bool isTurnTaken = false;
    bool isTurnOverdue = false;
    std::condition_variable turnEnded;
};

// Never destroyed: lines are written until the very end of the process.
LogState& logState() {
    static LogState* const state = new LogState;
    return *state;
}

// This thread's turn at the sink, if it came in time.
class Turn final {
public:
    explicit Turn(LogState& state) : state_(state) {
        std::unique_lock lock(state_.lock);
        if (state_.isTurnOverdue) return;
        if (!state_.turnEnded.wait_for(lock, kLongestWait, [&] { return !state_.isTurnTaken; })) {
            state_.isTurnOverdue = true;
            return;
        }
        state_.isTurnTaken = true;
        sink_ = state_.sink;
        insideSink = true;
    }
    ~Turn() {
        if (!sink_) return;
        sink_.reset();  // a sink that was replaced meanwhile may log while it ends
        insideSink = false;
        {
            const std::lock_guard lock(state_.lock);
            state_.isTurnTaken = false;
            state_.isTurnOverdue = false;
        }
        state_.turnEnded.notify_one();
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

    LogSink* sink() const { return sink_.get(); }

private:
    LogState& state_;
    std::shared_ptr<LogSink> sink_;
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
    const Turn turn(logState());
    LogSink* const sink = turn.sink();
    return sink && reportDropped(*sink) && sink->write(line);
}

}  // namespace

void setLogSink(std::shared_ptr<LogSink> sink) {
    if (!sink) sink = std::make_shared<PlainSink>();
    LogState& state = logState();
    const std::lock_guard lock(state.lock);
    state.sink.swap(sink);
    // The old one ends after the lock: parameters outlive local variables.
}

void setExtendedLoggingProbe(std::function<bool()> probe) {
    auto shared = probe ? std::make_shared<const Probe>(std::move(probe)) : nullptr;
    LogState& state = logState();
    {
        const std::lock_guard lock(state.lock);
        state.probe.swap(shared);
    }
}

bool KUIsExtendedLoggingOn() {
    try {
        LogState& state = logState();
        std::shared_ptr<const Probe> probe;
        {
            const std::lock_guard lock(state.lock);
            probe = state.probe;
        }
        return probe && (*probe)();
    } catch (...) {
        return false;
    }
}

void prepareLogForFork() noexcept { logState().lock.lock(); }

void resumeLogAfterFork() noexcept { logState().lock.unlock(); }

void resumeLogInForkedChild() noexcept {
    LogState& state = logState();
    // A new one: the old one still counts the parent's threads that were waiting.
    new (&state.turnEnded) std::condition_variable;
    state.isTurnOverdue = state.isTurnTaken && !insideSink;
    state.lock.unlock();
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
