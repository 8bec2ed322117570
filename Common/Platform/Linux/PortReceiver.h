#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Common/Foundation/Handle.h"
#include "Common/Platform/Linux/LoopWatches.h"
#include "Common/Platform/Linux/PortMemory.h"
#include "Common/Platform/Linux/PortPacket.h"
#include "Common/Platform/Linux/PortRegistration.h"
#include "Common/Platform/Port.h"

namespace utilia::platform {

struct PortConnection;

// The receiving end: the names of one port, the connections that came in under them, and their
// deliveries.
//
// Threads: belongs to the thread on whose loop it is scheduled.
class PortReceiver final : public std::enable_shared_from_this<PortReceiver> {
public:
    struct Limits {
        std::chrono::milliseconds helloTimeout = std::chrono::seconds(5);
        std::size_t connectionsPerProcess = 64;  // of those that have not ended
        std::size_t connections = 512;
        unsigned packetsPerTurn = 16;  // of one connection
    };

    PortReceiver();
    ~PortReceiver();
    PortReceiver(const PortReceiver&) = delete;
    PortReceiver& operator=(const PortReceiver&) = delete;

    void setLimits(const Limits& limits) { limits_ = limits; }
    void setDelegate(PortDelegate* delegate);
    void schedule(std::shared_ptr<LoopWatches> watches);
    void unschedule();
    // Takes a name; all its connections will be served here.
    void add(PortRegistration registration);
    // Takes in the connections that were made under the name, then gives it up.
    void removeName(std::string_view name);
    void close();

    std::size_t connectionCount() const { return connections_.size(); }
    // How many times something was refused for this reason.
    std::uint64_t refusals(PortRefusal refusal) const {
        return refused_[static_cast<std::size_t>(refusal)].count;
    }

private:
    friend struct PortConnection;
    struct Listener;

    enum class Step { Delivered, Nothing, Ended };

    // What one delivery needs. A handler that runs the loop is served from the next one, since the
    // components of the message that it handles lie in the first.
    struct Delivery {
        std::unique_ptr<std::uint8_t[]> buffer;
        PortMemoryBuffer memory;
        PortMessage message{0, {}};
    };
    struct RefusalRecord {
        std::uint64_t count = 0;
        std::uint64_t unreported = 0;
        std::chrono::steady_clock::time_point reported{};
    };

    bool isServing() const { return watches_ && delegate_; }
    void updateWatches();
    void watch(Listener& listener);
    void watch(PortConnection& connection);
    void unwatchAll();

    void acceptFrom(Listener& listener, std::size_t atMost);
    void takeIn(UniqueFd socket);
    std::size_t livingConnectionsOf(pid_t process) const;
    void pauseAccepting();
    void resumeAccepting();

    void serve(PortConnection& connection);
    Step receive(PortConnection& connection, Delivery& delivery);
    Step handlePacket(PortConnection& connection, std::span<const std::uint8_t> packet,
                      UniqueFd descriptor, Delivery& delivery);
    Step refuse(PortConnection& connection, PortRefusal refusal);
    void deliver(const PortPacketView& view, std::span<const std::uint8_t> payload,
                 Delivery& delivery);
    void end(PortConnection& connection);
    void report(PortRefusal refusal, pid_t process);
    Delivery& currentDelivery();

    void expectHello();
    void dropSilentConnections();
    std::string describe() const;

    Limits limits_;
    PortDelegate* delegate_ = nullptr;
    std::shared_ptr<LoopWatches> watches_;
    std::vector<std::unique_ptr<Listener>> listeners_;
    std::vector<std::unique_ptr<PortConnection>> connections_;
    std::vector<std::unique_ptr<PortConnection>> ended_;  // until no delivery is under way
    std::vector<std::unique_ptr<Delivery>> deliveries_;
    std::size_t depth_ = 0;
    bool isAcceptingPaused_ = false;
    Handle acceptTimer_;
    Handle helloTimer_;
    std::array<RefusalRecord, kPortRefusalCount> refused_{};
};

}  // namespace utilia::platform
