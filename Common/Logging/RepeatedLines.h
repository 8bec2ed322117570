#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "Common/Foundation/Export.h"

namespace utilia {

// Log lines about what others do wrong, and may do again and again: a reason is logged when it
// first comes up, then at most once in each interval, with the number of times that it came up in
// between.
//
// Threads: an instance belongs to one thread.
class UTILIA_EXPORT RepeatedLines final {
public:
    explicit RepeatedLines(std::chrono::nanoseconds interval = std::chrono::seconds(10))
        : interval_(interval) {}

    // `reason` says which lines count as the same one; it stands in no line.
    void log(std::string_view reason, std::string_view line);

private:
    struct Record {
        std::chrono::steady_clock::time_point logged;
        std::uint64_t unlogged = 0;
    };

    void logOnce(std::string_view reason, std::string_view line);

    const std::chrono::nanoseconds interval_;
    std::map<std::string, Record, std::less<>> records_;
};

}  // namespace utilia
