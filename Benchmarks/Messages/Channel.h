#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "Benchmarks/Support/Measure.h"

namespace utilia::bench {

using Bytes = std::span<const std::uint8_t>;

// Sends one message at a time; returns when the message is on its way.
class MessageSender {
public:
    virtual ~MessageSender() = default;
    virtual void send(Bytes message) = 0;
};

class MessageReceiver {
public:
    virtual ~MessageReceiver() = default;
    // Serves until `take` answers false for a message, or `done` answers true, which is asked every
    // 50 ms or so. Without `done` nothing but messages ends the wait, as in an application that runs.
    virtual void run(const std::function<bool(Bytes)>& take, const std::function<bool()>& done) = 0;
};

// A way to carry messages between processes.
class MessageChannel {
public:
    virtual ~MessageChannel() = default;
    // Before any process is forked: what they inherit or find.
    virtual void prepare(const Settings& settings) = 0;
    // In the process that receives, or sends, under a name.
    virtual std::unique_ptr<MessageReceiver> receiver(const std::string& name) = 0;
    virtual std::unique_ptr<MessageSender> sender(const std::string& name) = 0;
};

std::unique_ptr<MessageChannel> makePortChannel();  // the framework's ports
std::unique_ptr<MessageChannel>
makeSocketChannel();  // pairs of SOCK_SEQPACKET sockets, names "ping" and "pong" only
// The same pairs, with the message in a new sealed memory file that the receiver maps: what a port
// would do that does not use its memory again.
std::unique_ptr<MessageChannel> makeMemoryChannel();
std::unique_ptr<MessageChannel>
makeBrokerChannel();  // method calls without reply through dbus-broker
std::unique_ptr<MessageChannel> makeDaemonChannel();  // the same through dbus-daemon

}  // namespace utilia::bench
