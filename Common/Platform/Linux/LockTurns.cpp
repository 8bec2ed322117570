#include "Common/Platform/Linux/LockTurns.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <utility>

#include <time.h>

namespace utilia::platform {
namespace {

constexpr std::int64_t kBusyWithin = 5'000'000;    // ns
constexpr std::int64_t kShortestPause = 100'000;   // ns
constexpr std::int64_t kLongestPause = 1'000'000;  // ns
constexpr std::int64_t kPauseShare = 8;            // of the time the lock was held

struct Turn {
    unsigned heldLocks = 0;
    bool hasUpdated = false;
    std::int64_t asked = 0;  // when the first of the held locks was asked for
    std::int64_t taken = 0;
};
thread_local Turn turn;

// Of the whole process, in ns of the steady clock; 0 before the first.
std::atomic<std::int64_t> lastUpdate{0};

std::int64_t now() {
    return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

}  // namespace

void LockTurns::asked() {
    if (turn.heldLocks == 0) turn.asked = now();
}

void LockTurns::taken() {
    if (turn.heldLocks++ == 0) turn.taken = now();
}

void LockTurns::updated() { turn.hasUpdated = true; }

void LockTurns::released() {
    // A pause inside an outer lock would make everybody wait longer.
    if (turn.heldLocks > 0) --turn.heldLocks;
    if (turn.heldLocks > 0 || !std::exchange(turn.hasUpdated, false)) return;
    const std::int64_t end = now();
    const std::int64_t before = lastUpdate.exchange(end, std::memory_order_relaxed);
    // What an update takes, and how long it waits for its lock, says nothing about how soon after
    // the last one it was wanted.
    if (before == 0 || turn.asked - before >= kBusyWithin) return;
    const std::int64_t length =
        std::clamp((end - turn.taken) / kPauseShare, kShortestPause, kLongestPause);
    const timespec pause{0, static_cast<long>(length)};
    nanosleep(&pause, nullptr);  // an interrupted pause is long enough
}

}  // namespace utilia::platform
