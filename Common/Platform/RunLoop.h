#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <utility>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Handle.h"

namespace utilia::platform {

// The loop of a thread, on which its ports, timers and watches are served.
//
// The loop is GLib's main context of the thread (the default context on the main thread), so that a
// host toolkit that runs that context runs this loop too. Sources of this library may recurse: a
// nested run serves them.
class UTILIA_EXPORT RunLoop final {
public:
    // The calling thread's. Valid as long as the thread.
    static RunLoop& currentRunLoop();
    static RunLoop& mainRunLoop();

    // Serves until stop(), which ends the innermost run of this loop. Only on the loop's own
    // thread.
    void run();
    // Serves until the time is over or stop(); always at least one turn.
    void runFor(std::chrono::nanoseconds time);
    // Serves until `done` answers true, or the time is over; answers what `done` said last.
    bool runUntil(const std::function<bool()>& done, std::chrono::nanoseconds time);
    // From any thread. A stop that finds no run under way ends the next one after its first turn;
    // several stops before a run takes notice count as one.
    void stop();

    // Runs the work on this loop's thread in its next turn, never inside the call. From any thread;
    // calls from one thread keep their order.
    void perform(std::function<void()> work);

    RunLoop(const RunLoop&) = delete;
    RunLoop& operator=(const RunLoop&) = delete;

    struct Implementation;
    Implementation& implementation() { return *implementation_; }

private:
    friend struct RunLoopAccess;
    RunLoop();
    ~RunLoop();
    std::unique_ptr<Implementation> implementation_;
};

// Calls on the current thread's loop when the time comes. Time is counted over suspend and does not
// follow changes of the wall clock. A repeating timer keeps its phase; firings that were missed
// collapse into one.
class UTILIA_EXPORT Timer final {
public:
    // The timer lives until the handle ends. An interval of zero or less becomes 0.1 ms.
    static Handle scheduledTimer(std::chrono::nanoseconds interval, bool repeats,
                                 std::function<void()> fire);
    // A repeating timer that first fires after `delay`, which may be zero, and keeps its phase from there.
    static Handle repeatingTimer(std::chrono::nanoseconds delay, std::chrono::nanoseconds interval,
                                 std::function<void()> fire);
    Timer() = delete;
};

// Work for the main thread.
class UTILIA_EXPORT MainQueue final {
public:
    static void async(std::function<void()> work) {
        RunLoop::mainRunLoop().perform(std::move(work));
    }
    MainQueue() = delete;
};

}  // namespace utilia::platform
