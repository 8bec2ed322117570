#include "Common/Platform/Linux/SlowLockWatch.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <exception>
#include <list>
#include <memory>
#include <mutex>
#include <thread>

#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "Common/Logging/Log.h"

namespace utilia::platform {
namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kPatience = std::chrono::seconds(2);

struct Wait {
    const SlowLockWatch* watch;
    int descriptor;
    std::string path;
    Clock::time_point deadline;
};

// All waits of one process, soonest deadline first: they all have the same patience.
struct Watcher {
    const pid_t process = getpid();
    std::mutex mutex;
    std::condition_variable wake;
    std::list<Wait> waits;
    bool hasThread = false;
    bool isIdle = false;

    void run() {
        std::unique_lock guard(mutex);
        for (;;) {
            // A short wait has come and gone before its deadline: the thread looks again then,
            // instead of being woken for each of them.
            isIdle = waits.empty();
            if (isIdle) {
                wake.wait(guard);
                continue;
            }
            const auto next = waits.front().deadline;
            if (Clock::now() < next) {
                wake.wait_until(guard, next);
                continue;
            }
            const std::string line = "Waiting for the lock on " + waits.front().path +
                                     ", held by " + lockHolder(waits.front().descriptor) +
                                     ", since 2 seconds";
            waits.pop_front();
            guard.unlock();
            KULogVariadic("%@", line);
            guard.lock();
        }
    }
};

// Never destroyed. A forked child has no such thread and may have inherited a locked mutex: it
// starts anew.
Watcher& watcher() {
    static std::atomic<Watcher*> current{nullptr};
    Watcher* existing = current.load(std::memory_order_acquire);
    while (!existing || existing->process != getpid()) {
        auto fresh = std::make_unique<Watcher>();
        if (current.compare_exchange_strong(existing, fresh.get(), std::memory_order_acq_rel))
            return *fresh.release();
    }
    return *existing;
}

}  // namespace

SlowLockWatch::SlowLockWatch(int descriptor, const std::string& path) {
    Watcher& all = watcher();
    const std::lock_guard guard(all.mutex);
    all.waits.push_back({this, descriptor, path, Clock::now() + kPatience});
    if (all.isIdle) all.wake.notify_one();
    if (all.hasThread) return;
    // The host's signal handlers run on the host's threads.
    sigset_t everything;
    sigset_t before;
    sigfillset(&everything);
    pthread_sigmask(SIG_SETMASK, &everything, &before);
    try {
        std::thread([&all] { all.run(); }).detach();
        all.hasThread = true;
    } catch (const std::exception&) {
        // Without a thread the wait is silent, and everything else goes on.
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

SlowLockWatch::~SlowLockWatch() {
    Watcher& all = watcher();
    const std::lock_guard guard(all.mutex);
    all.waits.remove_if([this](const Wait& wait) { return wait.watch == this; });
}

std::string lockHolder(int descriptor) {
    struct stat file {};
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> locks(std::fopen("/proc/locks", "re"),
                                                                &std::fclose);
    if (!locks || fstat(descriptor, &file) != 0) return "another process";
    char line[256];
    while (std::fgets(line, sizeof line, locks.get())) {
        int pid = 0;
        unsigned major = 0;
        unsigned minor = 0;
        unsigned long long inode = 0;
        // "7: FLOCK  ADVISORY  WRITE 4711 fe:00:1234 0 EOF"; those who wait have an arrow before
        // "FLOCK".
        if (std::sscanf(line, "%*d: FLOCK %*s %*s %d %x:%x:%llu", &pid, &major, &minor, &inode) !=
            4)
            continue;
        if (pid > 0 && inode == file.st_ino && makedev(major, minor) == file.st_dev) {
            return "process " + std::to_string(pid);
        }
    }
    return "another process";
}

}  // namespace utilia::platform
