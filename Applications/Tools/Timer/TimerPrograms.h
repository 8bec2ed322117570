#pragma once

#include <cstdint>
#include <string>

#include "Common/Foundation/Value.h"

namespace utilia::tools {

// A timer lives long, and need not load for all that time what it seldom uses: programs beside its own do that.

// Shows a notification of this tool where the desktop shows them (timer-notification). Without that program there is one
// log line.
void showNotification(const std::string& summary, const std::string& body);

// Opens the window to set the timer (timer-window), which proposes the length of the last countdown. False where there is
// no display, or no such program.
bool showWindow(bool isHeld, std::int64_t lastSeconds);

// The time of day: "18:30".
std::string clockTime(Date date);

}  // namespace utilia::tools
