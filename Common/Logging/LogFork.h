#pragma once

// What the log does around a fork, so that a child that was forked from among several threads does
// not wait for threads that it does not have. Only the platform layer learns of forks:
// platform::makeSystemLogSink() sees to it that these are called.
//
// Threads: the one that forks.

namespace utilia {

void prepareLogForFork() noexcept;
void resumeLogAfterFork() noexcept;  // in the parent
void resumeLogInForkedChild() noexcept;

}  // namespace utilia
