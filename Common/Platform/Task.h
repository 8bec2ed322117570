#pragma once

#include <string>
#include <vector>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Result.h"

namespace utilia::platform {

// A program that is started and goes on by itself: nobody waits for it, and it may outlive this
// process. What is left of it when it ends is cleared away, without notice to the host.
struct UTILIA_EXPORT Task {
    std::string launchPath;                // absolute
    std::vector<std::string> arguments;    // after the program's name
    std::vector<std::string> environment;  // NAME=VALUE; nothing else is in it
    // An existing file that the task, with everything it starts, holds an exclusive lock on until
    // the last of them has ended. None when empty.
    std::string lockedFile;

    // Starts the program in a session of its own, with null standard streams, default signals, and
    // the user's home as its folder. Fails with UtiliaErrorCode::Busy when somebody else holds the
    // lock, and with the error of the system when the file or the program cannot be opened; a link
    // in the place of the locked file is refused.
    //
    // Threads: any.
    Result<void> launch() const;

    // Whether a task holds a lock on the file, of this process or another.
    static bool isLocked(const std::string& path);
};

}  // namespace utilia::platform
