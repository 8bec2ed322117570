#pragma once

namespace utilia::platform {

// Gives other processes their turn. flock is not fair: a process that takes and releases a lock in
// a tight loop gets it again before the woken waiters have run, and starves them for tenths of a
// second. A process that updates again within 5 ms therefore pauses 100 µs after it has released
// its last lock; a single update never pauses.
//
// Threads: any; locks are counted for each thread.
class LockTurns final {
public:
    static void taken();
    // What a held lock guards was changed.
    static void updated();
    static void released();
    LockTurns() = delete;
};

}  // namespace utilia::platform
