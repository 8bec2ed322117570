#include "Common/Platform/Task.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <time.h>

#include "Common/Platform/Linux/ChildLauncher.h"
#include "Common/Platform/Linux/ChildWatcher.h"
#include "Common/Platform/Linux/OutOfMemory.h"
#include "Common/Platform/UniqueFd.h"

// flock belongs to the open file, and the task gets a descriptor of the same open file: when this
// process closes its own without unlocking, the lock stays until the task and its children are gone.

namespace utilia::platform {
namespace {

Result<UniqueFd> lockFile(const std::string& path, int operation) {
    UniqueFd file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file) return Error::posix(errno, "open", path);
    int result;
    do {
        result = flock(file.get(), operation | LOCK_NB);
    } while (result != 0 && errno == EINTR);
    if (result == 0) return file;
    if (errno != EWOULDBLOCK) return Error::posix(errno, "flock", path);
    return Error::utilia(UtiliaErrorCode::Busy, "flock " + path + ": held by somebody else");
}

// Whoever only looks, in isLocked(), has a shared lock for a moment. That is waited for, a second at most; another task is
// not.
Result<UniqueFd> lockForTask(const std::string& path) {
    constexpr int kTries = 1000;
    constexpr timespec kPause{0, 1'000'000};
    for (int tries = 1;; ++tries) {
        auto locked = lockFile(path, LOCK_EX);
        if (locked || !locked.error().is(UtiliaErrorCode::Busy) || tries == kTries) return locked;
        if (!lockFile(path, LOCK_SH)) return locked;
        nanosleep(&kPause, nullptr);
    }
}

}  // namespace

Result<void> Task::launch() const {
    return orOutOfMemory("start", launchPath, [this]() -> Result<void> {
        UniqueFd locked;
        if (!lockedFile.empty()) {
            auto file = lockForTask(lockedFile);
            if (!file) return std::move(file).error();
            locked = *std::move(file);
        }
        auto child = launchChild(launchPath, {arguments, environment, locked.get()});
        if (!child) return std::move(child).error();
        // A watcher that cannot begin now begins with the next child.
        (void)ChildWatcher::shared().watch(*std::move(child),
                                           [](ChildWatcher::Status) { return true; });
        return {};
    });
}

bool Task::isLocked(const std::string& path) {
    const auto file = lockFile(path, LOCK_SH);
    return !file && file.error().is(UtiliaErrorCode::Busy);
}

}  // namespace utilia::platform
