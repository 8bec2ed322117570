#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

#include "Common/Foundation/Result.h"
#include "Common/Platform/UniqueFd.h"

namespace utilia::platform {

// A child process that nobody has reaped yet.
struct Child {
    pid_t process = 0;
    UniqueFd handle;  // its pidfd; empty when the system had no descriptor left for it
};

// Starts an application: in a session of its own, with default signals and an empty signal mask,
// null standard streams, no other descriptor, the environment of this process, and the user's home
// (or "/") as its working folder. `program` is absolute; it also becomes the first argument. Fails
// with the error of the start, also when the program cannot be executed; with Refused for arguments
// that hold NUL.
//
// The caller must see to it that the child is reaped (ChildWatcher).
//
// Threads: any.
Result<Child> launchChild(const std::string& program, const std::vector<std::string>& arguments);

}  // namespace utilia::platform
