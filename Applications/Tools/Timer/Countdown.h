#pragma once

#include <cstdint>
#include <optional>

#include "Common/Foundation/Value.h"
#include "Common/Platform/UserDefaults.h"

namespace utilia::tools {

// A countdown that goes on while the tool does not run. Its end is a date, which is kept in the tool's preferences, and
// at which the agent starts the tool (ToolScheduler) or tells it, should it run.
//
// Threads: the main thread.
class Countdown final {
public:
    // Takes over what is kept; one log line when that is damaged. `kept` must live as long as this object.
    explicit Countdown(platform::UserDefaults& kept);

    // Replaces the one before.
    void start(std::int64_t seconds);
    void hold();
    void goOn();
    void clear();

    bool isSet() const { return length_ > 0; }
    bool isHeld() const { return isSet() && !end_; }
    std::int64_t length() const { return length_; }   // seconds; 0 when none is set
    std::optional<Date> end() const { return end_; }  // empty while it is held
    // Rounded; never below 0.
    std::int64_t secondsLeft() const;

private:
    bool takeOver(const Dictionary& found);  // whether it is sound
    void begin(std::int64_t length, std::int64_t left);
    void keep() const;

    platform::UserDefaults& kept_;
    std::int64_t length_ = 0;
    std::int64_t held_ = 0;  // seconds that were left when it was held
    std::optional<Date> end_;
};

}  // namespace utilia::tools
