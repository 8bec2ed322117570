#pragma once

#include <chrono>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "Common/Foundation/Handle.h"
#include "Common/Foundation/Result.h"
#include "Common/Platform/Linux/ForkGuardedFd.h"
#include "Common/Platform/Linux/LoopWatches.h"
#include "Common/Platform/Linux/PortMemory.h"
#include "Common/Platform/Linux/PortPacket.h"
#include "Common/Platform/Port.h"
#include "Common/Platform/RunLoop.h"

struct msghdr;

namespace utilia::platform {

// The sending end of a connection.
//
// Threads: belongs to the thread that opened it; its loop watches for the receiver's end.
class PortSender final : public LoopWatcher {
public:
    enum class Outcome {
        Sent,
        TimedOut,
        Dead,  // nobody receives there any more
    };

    // Connects without waiting. A receiver whose backlog is full exists; the connection is then
    // completed by the first send. Fails with NotFound when nobody listens under the name.
    static Result<std::unique_ptr<PortSender>> open(std::string_view name);

    ~PortSender() { close(); }
    PortSender(const PortSender&) = delete;
    PortSender& operator=(const PortSender&) = delete;

    const std::string& name() const { return name_; }
    void setPort(std::weak_ptr<Port> port) { port_ = std::move(port); }
    bool belongsToCurrentThread() const;
    RunLoop& runLoop() const { return loop_; }
    // Asks the kernel now, where the loop would only tell in its next turn.
    bool isHungUp() const;

    enum class Room { Some, None, Dead };
    // Completes the connection first, if that takes no waiting.
    Room room();

    // The limits of a message are the caller's to check.
    Outcome send(std::uint32_t msgid, std::span<const PortMessage::Component> components,
                 std::chrono::steady_clock::time_point deadline);
    void close();

    void descriptorIsReady(std::uint32_t events) override;

private:
    using Deadline = std::chrono::steady_clock::time_point;

    explicit PortSender(std::string name);
    Result<void> connectNow();
    Outcome connectBefore(Deadline deadline);
    Result<void> finishConnecting();
    Outcome sendPacket(const msghdr& packet, Deadline deadline);
    void forgetMemoryLater();

    std::string name_;
    RunLoop& loop_;
    std::weak_ptr<LoopWatches> watches_;
    LoopWatches::Id watch_ = 0;
    std::weak_ptr<Port> port_;
    ForkGuardedFd socket_;
    PortMemoryWriter memory_;
    std::chrono::steady_clock::time_point lastLargeMessage_{};
    Handle memoryTimer_;
    UniqueFd place_;  // the receiver's socket file, while the connection is not made
};

}  // namespace utilia::platform
