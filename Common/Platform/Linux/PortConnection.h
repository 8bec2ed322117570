#pragma once

#include <algorithm>
#include <chrono>
#include <utility>

#include "Common/Platform/Linux/ForkGuardedFd.h"
#include "Common/Platform/Linux/LoopWatches.h"
#include "Common/Platform/Linux/PortReceiver.h"

namespace utilia::platform {

// How many packets a connection is asked for in one turn. One is the least work for a message that
// comes alone; a connection that never runs dry is asked for twice as many each turn, up to the
// limit. A connection that ran dry is not asked for more than it had until some turns have passed:
// the question alone costs a system call.
class PortBurst final {
public:
    unsigned size() const { return size_; }
    void turnEnded(unsigned taken, bool ranDry, unsigned limit) {
        if (ranDry) {
            size_ = std::max(taken, 1u);
            patience_ = kPatience;
        } else if (patience_ > 0) {
            --patience_;
        } else {
            size_ = std::min(2 * size_, limit);
        }
    }

private:
    static constexpr unsigned kPatience = 16;
    unsigned size_ = 1;
    unsigned patience_ = 0;
};

// One peer's connection to a receiving port.
struct PortConnection final : LoopWatcher {
    PortConnection(PortReceiver& owner, UniqueFd connected, pid_t peer)
        : receiver(owner), socket(std::move(connected)), process(peer) {}

    void descriptorIsReady(std::uint32_t) override { receiver.serve(*this); }

    PortReceiver& receiver;
    ForkGuardedFd socket;  // empty once the connection has ended
    const pid_t process;
    const std::chrono::steady_clock::time_point accepted = std::chrono::steady_clock::now();
    bool hasGreeted = false;
    LoopWatches::Id watch = 0;
    PortBurst burst;
};

}  // namespace utilia::platform
