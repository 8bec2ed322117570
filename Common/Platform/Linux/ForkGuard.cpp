#include "Common/Platform/Linux/ForkGuard.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <vector>

#include <pthread.h>
#include <unistd.h>

namespace utilia::platform {
namespace {

std::atomic<unsigned> forks = 0;

struct Registry {
    std::mutex mutex;
    std::vector<int> descriptors;

    Registry();
};

// Made on first use and never destroyed: a fork may come from an exit handler too.
Registry& registry() {
    static Registry* const instance = new Registry;
    return *instance;
}

Registry::Registry() {
    pthread_atfork([] { registry().mutex.lock(); }, [] { registry().mutex.unlock(); },
                   [] {
                       for (const int descriptor : registry().descriptors) close(descriptor);
                       registry().descriptors.clear();
                       forks.fetch_add(1, std::memory_order_relaxed);
                       registry().mutex.unlock();
                   });
}

}  // namespace

void ForkGuard::closeInChild(int descriptor) {
    Registry& all = registry();
    const std::lock_guard guard(all.mutex);
    all.descriptors.push_back(descriptor);
}

bool ForkGuard::forget(int descriptor) {
    Registry& all = registry();
    const std::lock_guard guard(all.mutex);
    const auto found = std::find(all.descriptors.begin(), all.descriptors.end(), descriptor);
    if (found == all.descriptors.end()) return false;
    all.descriptors.erase(found);
    return true;
}

unsigned ForkGuard::generation() { return forks.load(std::memory_order_relaxed); }

}  // namespace utilia::platform
