#include "Common/Platform/TimeZone.h"

#include "Common/Foundation/Rounding.h"

#include <time.h>

namespace utilia::platform {

std::int32_t TimeZone::secondsFromGMT(Date date) {
    const double seconds = roundedDown(date.unixTime());
    // Beyond this, years do not fit into the system's structure either.
    constexpr double kRange = 6e16;
    if (!(seconds > -kRange && seconds < kRange)) return 0;
    const auto moment = static_cast<time_t>(seconds);
    tm local{};
    return localtime_r(&moment, &local) ? static_cast<std::int32_t>(local.tm_gmtoff) : 0;
}

}  // namespace utilia::platform
