#pragma once

#include <string>

namespace utilia::platform {

// While it lives, a wait for a lock is under way; one that takes more than two seconds is logged,
// once.
//
// A blocking flock cannot also wake up to say so, and polling instead would give its place in the
// kernel's queue away. So one thread per process, begun with the first wait, watches the clock for
// all of them.
//
// Threads: any.
class SlowLockWatch final {
public:
    // `descriptor` is the open lock, `path` its name for the log; both outlive this object.
    SlowLockWatch(int descriptor, const std::string& path);
    ~SlowLockWatch();
    SlowLockWatch(const SlowLockWatch&) = delete;
    SlowLockWatch& operator=(const SlowLockWatch&) = delete;
};

// "process 4711" for the holder of the lock on the file, as far as the kernel tells, else "another
// process".
std::string lockHolder(int descriptor);

}  // namespace utilia::platform
