#pragma once

namespace utilia::platform {

// Gives other processes their turn. flock is not fair: a process that takes and releases a lock in
// a tight loop gets it again before the woken waiters have run, and starves them for tenths of a
// second. A process that asks for its locks less than 5 ms after its last update therefore pauses
// after it has released the last of them: 100 µs, or more where an update takes long, because there
// the waiters are more likely to find something else running. A single update never pauses.
//
// Threads: any; locks are counted for each thread.
class LockTurns final {
public:
    static void asked();  // before waiting for a lock
    static void taken();
    // What a held lock guards was changed.
    static void updated();
    static void released();
    LockTurns() = delete;
};

}  // namespace utilia::platform
