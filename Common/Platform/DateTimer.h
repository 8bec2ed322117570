#pragma once

#include <functional>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Handle.h"
#include "Common/Foundation/Value.h"

namespace utilia::platform {

// Calls once on the current thread's loop when the wall clock has reached a date, which is what a user means by a date:
// the call comes earlier when the clock is set forward, later when it is set back, and at once after the machine has
// slept past the date. A date that is over already is reached in the loop's next turn.
//
// Costs nothing while it waits. A process without descriptors looks at the clock twice a minute instead, with one log
// line.
class UTILIA_EXPORT DateTimer final {
public:
    // The timer lives until it has fired or the handle ends. A date that is no number is never reached.
    static Handle scheduledTimer(Date date, std::function<void()> fire);
    DateTimer() = delete;
};

}  // namespace utilia::platform
