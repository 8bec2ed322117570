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

// What a process is started with, beside its program.
struct ChildInput {
    std::vector<std::string> arguments;    // after the program's name
    std::vector<std::string> environment;  // NAME=VALUE
    int kept = -1;  // a descriptor that the child and what it starts keep open, as number 3
};

// This process's environment. A launch that goes on in another thread takes it before, on the
// thread that may change it.
std::vector<std::string> currentEnvironment();

// Starts an application: in a session of its own, with default signals and an empty signal mask,
// null standard streams, no other descriptor but `kept`, and the user's home (or "/") as its working folder.
// `program` is absolute; it also becomes the first argument. Fails with the error of the start,
// also when the program cannot be executed; with Refused for arguments that hold NUL.
//
// The caller must see to it that the child is reaped (ChildWatcher).
//
// Threads: any.
Result<Child> launchChild(const std::string& program, const ChildInput& input);

// Starts a helper of this process, which talks to it over `channel`, the helper's standard input:
// in the same session, environment and working folder, with default signals and an empty signal
// mask, null standard output, the same standard error, and no other descriptor. Otherwise as
// launchChild().
Result<Child> launchHelper(const std::string& program, int channel);

}  // namespace utilia::platform
