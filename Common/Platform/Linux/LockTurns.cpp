#include "Common/Platform/Linux/LockTurns.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <utility>

#include <time.h>

namespace utilia::platform {
namespace {

constexpr std::int64_t kBusyWithin = 5'000'000;  // ns
constexpr long kPause = 100'000;                 // ns

thread_local unsigned heldLocks = 0;
thread_local bool hasUpdated = false;

// Of the whole process, in ns of the steady clock; 0 before the first.
std::atomic<std::int64_t> lastUpdate{0};

}  // namespace

void LockTurns::taken() { ++heldLocks; }

void LockTurns::updated() { hasUpdated = true; }

void LockTurns::released() {
    // A pause inside an outer lock would make everybody wait longer.
    if (heldLocks > 0) --heldLocks;
    if (heldLocks > 0 || !std::exchange(hasUpdated, false)) return;
    const std::int64_t now =
        std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
    const std::int64_t before = lastUpdate.exchange(now, std::memory_order_relaxed);
    if (before == 0 || now - before >= kBusyWithin) return;
    const timespec pause{0, kPause};
    nanosleep(&pause, nullptr);  // an interrupted pause is long enough
}

}  // namespace utilia::platform
