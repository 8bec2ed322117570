#pragma once

#include <array>
#include <functional>
#include <memory>
#include <span>
#include <string_view>

#include "Common/Logging/LogArgument.h"

// The log of the framework and of the applications that load it.
//
// A line has no level: what is worth a line only while somebody looks for something is written when
// KUIsExtendedLoggingOn() says so. Logging never throws and never fails visibly, and it does not
// block: a line that a sink could not take, or that did not get its turn, is counted, and the count
// stands before the next line that gets through. A turn is waited for at most a second; after that,
// for as long as the other thread is stuck in the sink, lines are counted at once. So are those of
// a child that was forked while another thread was in the sink.
//
// Threads: every function may be called on any thread, and from run-loop callbacks.

namespace utilia {

// Where lines go. `write` is called from any thread, one call at a time.
class UTILIA_EXPORT LogSink {
public:
    virtual ~LogSink() = default;
    // One line without its end. Answers whether it was taken; must neither block nor throw.
    virtual bool write(std::string_view line) noexcept = 0;
};

// Replaces the sink; null puts the plain one back, which writes lines to stderr. That one knows no
// system and so may wait for whoever reads stderr: programs install platform::makeSystemLogSink()
// before they log. A line that a sink itself logs while it writes is not delivered but counted.
UTILIA_EXPORT void setLogSink(std::shared_ptr<LogSink> sink);

// Installs the answer of KUIsExtendedLoggingOn(); without one it is false. The function may be
// called on any thread.
UTILIA_EXPORT void setExtendedLoggingProbe(std::function<bool()> probe);

UTILIA_EXPORT bool KUIsExtendedLoggingOn();

// One line from a format and its arguments (formatLogLine() says which placeholders there are).
UTILIA_EXPORT void logFormatted(std::string_view format,
                                std::span<const LogArgument> arguments) noexcept;

template <class... Arguments>
void KULogVariadic(std::string_view format, const Arguments&... arguments) noexcept {
    if constexpr (sizeof...(arguments) == 0) {
        logFormatted(format, {});
    } else {
        const std::array<LogArgument, sizeof...(arguments)> list{LogArgument(arguments)...};
        logFormatted(format, list);
    }
}

}  // namespace utilia
