#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <vector>

#include "Common/Foundation/Result.h"
#include "Common/Platform/Linux/ChildLauncher.h"
#include "Common/Platform/UniqueFd.h"

namespace utilia::platform {

// Reaps the children of this process, each by its own handle: neither SIGCHLD nor any child of the
// host is touched. One thread does it, which blocks all signals and lives as long as there are
// children.
//
// Threads: any.
class ChildWatcher final {
public:
    // How a child ended: its exit status, or 128 + signal; 0 when somebody else reaped it.
    using Status = std::optional<int>;
    // Called every few milliseconds, with an empty status, until it answers true or the child has
    // ended; the last call then gets the status. Runs on the watcher's thread and must not wait.
    using Progress = std::function<bool(Status)>;

    static ChildWatcher& shared();

    // Takes the child over, whose end is reaped without further notice once `progress` has answered
    // true. Fails, with the child taken over all the same, when the thread cannot be started; the
    // next call tries again.
    Result<void> watch(Child child, Progress progress);

    ChildWatcher(const ChildWatcher&) = delete;
    ChildWatcher& operator=(const ChildWatcher&) = delete;

private:
    struct Watched {
        Child child;
        Progress progress;  // empty when done
    };

    ChildWatcher() = default;
    Result<void> startThread();
    void run();
    void waitForNews();

    std::mutex mutex_;
    std::vector<Watched> arriving_;  // guarded by mutex_
    bool threadRuns_ = false;        // guarded by mutex_
    UniqueFd wake_;                  // eventfd; made before the first thread
    std::vector<Watched> children_;  // the thread's own
};

}  // namespace utilia::platform
