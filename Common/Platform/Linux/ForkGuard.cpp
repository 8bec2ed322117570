#include "Common/Platform/Linux/ForkGuard.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <iterator>
#include <mutex>
#include <vector>

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

namespace utilia::platform {
namespace {

std::atomic<unsigned> forks = 0;

// The signal by which the kernel would tell that the file is ready, which it never does for a plain
// file. It belongs to the open file, and to ask for it takes less than half as long as fstat().
constexpr int kMark = 61;

struct Entry {
    int descriptor;
    bool isMarked = false;
};

// Of two entries with the same number the earlier one is of a file that somebody else has closed.
struct Entries {
    std::mutex mutex;
    std::vector<Entry> all;

    // False when there is none such.
    template <class Is>
    bool removeLast(Is is) {
        const auto found = std::find_if(all.rbegin(), all.rend(), is);
        if (found == all.rend()) return false;
        all.erase(std::next(found).base());
        return true;
    }

    Entries();
};

// Made on first use and never destroyed: a fork may come from an exit handler too.
Entries& entries() {
    static Entries* const instance = new Entries;
    return *instance;
}

int aboveStandardStreams(int descriptor) {
    const int above = fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int error = errno;
    ::close(descriptor);
    errno = error;
    return above;
}

Entries::Entries() {
    pthread_atfork([] { entries().mutex.lock(); }, [] { entries().mutex.unlock(); },
                   [] {
                       for (const Entry& entry : entries().all) {
                           if (!entry.isMarked || ForkGuard::isMarked(entry.descriptor))
                               ::close(entry.descriptor);
                       }
                       entries().all.clear();
                       forks.fetch_add(1, std::memory_order_relaxed);
                       entries().mutex.unlock();
                   });
}

}  // namespace

void ForkGuard::closeInChild(int descriptor) {
    Entries& entered = entries();
    const std::lock_guard guard(entered.mutex);
    entered.all.push_back({descriptor});
}

int ForkGuard::open(const char* path, int flags, unsigned mode) {
    Entries& entered = entries();
    const std::lock_guard guard(entered.mutex);
    // Before the file: where memory runs out, none is open.
    entered.all.reserve(entered.all.size() + 1);
    int descriptor;
    do {
        descriptor = ::open(path, flags, static_cast<mode_t>(mode));
    } while (descriptor < 0 && errno == EINTR);
    if (descriptor >= 0 && descriptor <= STDERR_FILENO)
        descriptor = aboveStandardStreams(descriptor);
    if (descriptor >= 0) entered.all.push_back({descriptor});
    return descriptor;
}

bool ForkGuard::close(int descriptor) {
    Entries& entered = entries();
    const std::lock_guard guard(entered.mutex);
    const auto isIt = [descriptor](const Entry& entry) { return entry.descriptor == descriptor; };
    if (!entered.removeLast(isIt)) return false;
    ::close(descriptor);
    return true;
}

bool ForkGuard::forget(int descriptor) {
    Entries& entered = entries();
    const std::lock_guard guard(entered.mutex);
    return entered.removeLast([&](const Entry& entry) { return entry.descriptor == descriptor; });
}

bool ForkGuard::mark(int descriptor) {
    Entries& entered = entries();
    const std::lock_guard guard(entered.mutex);
    const auto isIt = [descriptor](const Entry& entry) { return entry.descriptor == descriptor; };
    const auto found = std::find_if(entered.all.rbegin(), entered.all.rend(), isIt);
    if (found == entered.all.rend() || fcntl(descriptor, F_SETSIG, kMark) != 0) return false;
    found->isMarked = true;
    return true;
}

bool ForkGuard::isMarked(int descriptor) { return fcntl(descriptor, F_GETSIG) == kMark; }

bool ForkGuard::forgetMarked(int descriptor) {
    Entries& entered = entries();
    const std::lock_guard guard(entered.mutex);
    return entered.removeLast([descriptor](const Entry& entry) {
        return entry.descriptor == descriptor && entry.isMarked;
    });
}

unsigned ForkGuard::generation() { return forks.load(std::memory_order_relaxed); }

}  // namespace utilia::platform
