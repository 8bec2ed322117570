#include "Common/Platform/Linux/ForkGuard.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <vector>

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

namespace utilia::platform {
namespace {

std::atomic<unsigned> forks = 0;

struct Entries {
    std::mutex mutex;
    std::vector<int> descriptors;

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
                       for (const int descriptor : entries().descriptors) ::close(descriptor);
                       entries().descriptors.clear();
                       forks.fetch_add(1, std::memory_order_relaxed);
                       entries().mutex.unlock();
                   });
}

}  // namespace

void ForkGuard::closeInChild(int descriptor) {
    Entries& all = entries();
    const std::lock_guard guard(all.mutex);
    all.descriptors.push_back(descriptor);
}

int ForkGuard::open(const char* path, int flags, unsigned mode) {
    Entries& all = entries();
    const std::lock_guard guard(all.mutex);
    // Before the file: where memory runs out, none is open.
    all.descriptors.reserve(all.descriptors.size() + 1);
    int descriptor;
    do {
        descriptor = ::open(path, flags, static_cast<mode_t>(mode));
    } while (descriptor < 0 && errno == EINTR);
    if (descriptor >= 0 && descriptor <= STDERR_FILENO)
        descriptor = aboveStandardStreams(descriptor);
    if (descriptor >= 0) all.descriptors.push_back(descriptor);
    return descriptor;
}

bool ForkGuard::close(int descriptor) {
    Entries& all = entries();
    const std::lock_guard guard(all.mutex);
    const auto found = std::find(all.descriptors.begin(), all.descriptors.end(), descriptor);
    if (found == all.descriptors.end()) return false;
    all.descriptors.erase(found);
    ::close(descriptor);
    return true;
}

bool ForkGuard::forget(int descriptor) {
    Entries& all = entries();
    const std::lock_guard guard(all.mutex);
    const auto found = std::find(all.descriptors.begin(), all.descriptors.end(), descriptor);
    if (found == all.descriptors.end()) return false;
    all.descriptors.erase(found);
    return true;
}

unsigned ForkGuard::generation() { return forks.load(std::memory_order_relaxed); }

}  // namespace utilia::platform
