#include "Common/Logging/RepeatedLines.h"

#include <utility>

#include "Common/Logging/Log.h"
#include "Common/Logging/MemoryGuard.h"

namespace utilia {
namespace {

// Reasons are few. Should they come from outside after all, they must not grow without limit.
constexpr std::size_t kMostReasons = 64;

}  // namespace

void RepeatedLines::log(std::string_view reason, std::string_view line) {
    // A reason that cannot be kept is logged each time.
    unlessOutOfMemory(line, [&] { logOnce(reason, line); });
}

void RepeatedLines::logOnce(std::string_view reason, std::string_view line) {
    const auto now = std::chrono::steady_clock::now();
    const auto found = records_.find(reason);
    if (found == records_.end()) {
        if (records_.size() >= kMostReasons) records_.clear();
        records_.emplace(reason, Record{now, 0});
        KULogVariadic("%@", line);
        return;
    }
    Record& record = found->second;
    if (now - record.logged < interval_) {
        ++record.unlogged;
        return;
    }
    record.logged = now;
    if (const std::uint64_t more = std::exchange(record.unlogged, 0); more > 0) {
        KULogVariadic("%@ (and %lu times before)", line, more);
    } else {
        KULogVariadic("%@", line);
    }
}

}  // namespace utilia
