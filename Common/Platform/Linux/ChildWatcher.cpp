#include "Common/Platform/Linux/ChildWatcher.h"

#include <cerrno>
#include <csignal>
#include <system_error>
#include <thread>
#include <utility>

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

namespace utilia::platform {
namespace {

constexpr int kProgressInterval = 5;    // milliseconds
constexpr int kNoHandleInterval = 100;  // milliseconds

// The status of a child that has ended, reaped by this; empty while it runs.
ChildWatcher::Status reap(pid_t process) {
    siginfo_t info{};
    if (waitid(P_PID, static_cast<id_t>(process), &info, WEXITED | WNOHANG) != 0) {
        return errno == ECHILD ? ChildWatcher::Status(0) : std::nullopt;
    }
    if (info.si_pid == 0) return std::nullopt;
    return info.si_code == CLD_EXITED ? info.si_status : 128 + info.si_status;
}

}  // namespace

ChildWatcher& ChildWatcher::shared() {
    static ChildWatcher* const instance = new ChildWatcher;
    return *instance;
}

Result<void> ChildWatcher::watch(Child child, Progress progress) {
    const std::lock_guard guard(mutex_);
    arriving_.push_back({std::move(child), std::move(progress)});
    if (threadRuns_) {
        eventfd_write(wake_.get(), 1);
        return {};
    }
    return startThread();
}

Result<void> ChildWatcher::startThread() {
    if (!wake_) wake_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wake_) return Error::posix(errno, "eventfd", "the watcher of children");
    // A new thread inherits the mask of its maker: the host's signals must not arrive on it.
    sigset_t every;
    sigset_t before;
    sigfillset(&every);
    pthread_sigmask(SIG_SETMASK, &every, &before);
    int failed = 0;
    try {
        std::thread([this] { run(); }).detach();
        threadRuns_ = true;
    } catch (const std::system_error& error) {
        failed = error.code().value();
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (failed != 0) return Error::posix(failed, "start thread", "the watcher of children");
    return {};
}

void ChildWatcher::run() {
    pthread_setname_np(pthread_self(), "utilia-children");
    for (;;) {
        {
            const std::lock_guard guard(mutex_);
            for (Watched& watched : arriving_) children_.push_back(std::move(watched));
            arriving_.clear();
            if (children_.empty()) {
                threadRuns_ = false;
                return;
            }
        }
        std::erase_if(children_, [](Watched& watched) {
            const Status status = reap(watched.child.process);
            // Whoever hears of the end finds nothing of the child left.
            if (status) watched.child.handle.reset();
            if (watched.progress && (watched.progress(status) || status))
                watched.progress = nullptr;
            return status.has_value();
        });
        if (!children_.empty()) waitForNews();
    }
}

void ChildWatcher::waitForNews() {
    std::vector<pollfd> sources{{wake_.get(), POLLIN, 0}};
    int timeout = -1;
    for (const Watched& watched : children_) {
        if (watched.child.handle) {
            sources.push_back({watched.child.handle.get(), POLLIN, 0});
        } else if (timeout < 0) {
            timeout = kNoHandleInterval;
        }
        if (watched.progress) timeout = kProgressInterval;
    }
    poll(sources.data(), sources.size(), timeout);
    eventfd_t ignored = 0;
    eventfd_read(wake_.get(), &ignored);
}

}  // namespace utilia::platform
