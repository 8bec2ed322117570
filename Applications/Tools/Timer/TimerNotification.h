#pragma once

#include <string>

#include "Common/Foundation/Value.h"

namespace utilia::tools {

// Shows a notification of this tool where the desktop shows them. A program beside the tool's own, timer-notification, does
// it: a timer lives long, and need not load for all that time what speaks to the bus once. Without that program there is
// one log line.
void showNotification(const std::string& summary, const std::string& body);

// The time of day: "18:30".
std::string clockTime(Date date);

}  // namespace utilia::tools
