#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace utilia::tools {

// Counts time up, and is held at first. What counts is the time that has gone by, suspend included, and not how often
// anybody has looked.
//
// Threads: the one that uses it.
class Stopwatch final {
public:
    explicit Stopwatch(std::int64_t seconds = 0) : counted_(std::chrono::seconds(seconds)) {}

    void goOn();
    void hold();

    // Whole ones.
    std::int64_t seconds() const;
    std::chrono::nanoseconds untilNextSecond() const;

private:
    std::chrono::nanoseconds counted() const;

    std::chrono::nanoseconds counted_;  // until it last went on
    std::optional<std::chrono::nanoseconds> since_;
};

}  // namespace utilia::tools
