#pragma once

#include <chrono>

namespace utilia::platform {

// The next planned time of a repeating timer: the last planned one and as few whole intervals as
// lead past the moment at which the callback returned. So the phase is kept, and firings that were
// missed collapse into one. The interval must be positive.
constexpr std::chrono::nanoseconds nextFireTime(std::chrono::nanoseconds last,
                                                std::chrono::nanoseconds interval,
                                                std::chrono::nanoseconds returned) {
    if (returned < last) return last + interval;
    return last + ((returned - last) / interval + 1) * interval;
}

}  // namespace utilia::platform
