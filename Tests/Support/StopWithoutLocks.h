#pragma once

#include <filesystem>

#include <sys/types.h>

namespace utilia::test {

// Stops a process (SIGSTOP) at a moment at which it has no lock on anything in the folder, so that others can go on with
// what lies there. One that is stopped at any moment may have a lock, and then who asks for that waits for ever. On return
// all its threads stand. Throws when no such moment comes.
void stopWithoutLocks(pid_t process, const std::filesystem::path& folder);

}  // namespace utilia::test
