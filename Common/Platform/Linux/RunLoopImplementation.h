#pragma once

#include <atomic>
#include <functional>
#include <memory>

#include <glib.h>

#include "Common/Platform/Linux/LoopWatches.h"
#include "Common/Platform/Linux/LoopWorkQueue.h"
#include "Common/Platform/RunLoop.h"

namespace utilia::platform {

struct RunLoop::Implementation {
    // Takes a reference on the context; isPushed says that the thread's end has to pop it.
    Implementation(GMainContext* context, bool isPushed);
    ~Implementation();

    // Turns until `done` answers true, stop(), or the monotonic time in microseconds (-1: never).
    // At least one turn unless `done` holds before.
    bool serve(const std::function<bool()>& done, gint64 until);
    void turn(gint64 until);

    GMainContext* const context;
    const bool isPushed;
    std::shared_ptr<LoopWatches> watches;
    LoopWorkQueue work;
    std::atomic<bool> isStopRequested = false;
};

// The watches of the calling thread's loop.
inline std::shared_ptr<LoopWatches> currentLoopWatches() {
    return RunLoop::currentRunLoop().implementation().watches;
}

}  // namespace utilia::platform
