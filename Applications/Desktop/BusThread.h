#pragma once

#include <functional>

namespace utilia::desktop {

// Threads for talks with a bus that may never answer, and for other waits without an end: for a lock that somebody else
// holds. Such a thread cannot be ended, so a program must not take down under it what it uses: its own objects, and the
// bus library.

// False where no thread is to be had. `talk` may use what lives until the program's main ends.
bool startBusThread(std::function<void()> talk);

// The last step of main, before anything is taken down: answers the status, or ends the process with it at once where
// a talk is still going on.
int endedMain(int status);

// The same for who knows himself that something is still going on: the streams are written, and nothing is taken down.
[[noreturn]] void endAtOnce(int status);

}  // namespace utilia::desktop
