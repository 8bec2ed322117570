#pragma once

#include <string_view>

#include "Common/Foundation/Result.h"
#include "Common/Foundation/Value.h"

namespace utilia::control {

// The moment that a user means:
//
//     2026-11-21                    its beginning, where the user is
//     2026-11-21T10:00[:30[.5]]     where the user is; a blank may stand for the T
//     2026-11-21T10:00+01:00        in that zone: Z, +HH, +HHMM or +HH:MM, and the same with -
//     +90  +90s  +15m  +2h  +1d     after `now`, in seconds, minutes, hours, days of 24 hours
//
// Of a local time that comes twice, when clocks are put back, the first is meant; one that does not
// come, when they are put forward, is refused. Refused, with a reason for the user, is also what is
// no date of the calendar and what lies after the year 9999.
Result<Date> dateFromText(std::string_view text, Date now);

}  // namespace utilia::control
