#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include <sys/types.h>

#include "Common/Platform/Linux/Modules/Desktop/HostWatch.h"

namespace utilia::platform::desktop {

// The thread on which hosts are watched: begun with the first watch, and there for as long as the
// process. It blocks all signals.
//
// Threads: any.
class NetworkThread final {
public:
    static NetworkThread& shared();

    // 0, or the errno of what cannot be had, with its name in `what`. May throw std::bad_alloc.
    int add(std::shared_ptr<HostWatch> watch, const char** what);
    // Lets the thread put away what has ended.
    void collectEnded();

    // A forked child has no such thread, and may have its locks as they were at the fork.
    bool isInForkedChild() const;

    NetworkThread(const NetworkThread&) = delete;
    NetworkThread& operator=(const NetworkThread&) = delete;

private:
    NetworkThread() = default;
    int start(const char** what);
    void run();
    void serveWatches();
    static gboolean readChanges(int descriptor, GIOCondition condition, gpointer self);

    std::mutex mutex_;
    std::vector<std::shared_ptr<HostWatch>> arriving_;  // guarded by mutex_
    std::unique_ptr<WakeUp> watchesWaiting_;            // made before the thread
    std::atomic<pid_t> process_ = 0;                    // 0 before the thread

    // The thread's own.
    Network network_;
    std::unique_ptr<WakeUp> networkChanged_;
    std::vector<std::shared_ptr<HostWatch>> watches_;
};

}  // namespace utilia::platform::desktop
