#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Handle.h"
#include "Common/Foundation/Value.h"

namespace utilia {

// The time as usage reporting knows it: dates by the wall clock, which people and servers change,
// and timers that do not follow it.
//
// Threads: a timer belongs to the thread that makes it, and fires on that thread's loop.
class UTILIA_EXPORT CEPClock {
public:
    // The system's clocks.
    static std::shared_ptr<CEPClock> system();

    virtual ~CEPClock() = default;
    virtual Date now() const = 0;
    // Counts the time that the machine sleeps. First fires after `delay`, then keeps that phase;
    // firings that were missed collapse into one.
    virtual Handle repeatingTimer(std::chrono::nanoseconds delay, std::chrono::nanoseconds interval,
                                  std::function<void()> fire) = 0;
};

}  // namespace utilia
