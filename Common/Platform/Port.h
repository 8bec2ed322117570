#pragma once

#include <chrono>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Value.h"

// Named one-way message ports between the processes of one user's login.
//
// A receiving port is registered under a name and served by the run loop of the thread that
// scheduled it. A sending port is what looking a name up answers: it holds one connection, which
// all users of that name on this thread share, and becomes invalid, once and for good, when the
// receiver ends.
//
// Threads: a port belongs to the thread that made or looked it up.

namespace utilia::platform {

class PortMessage;

class UTILIA_EXPORT PortDelegate {
public:
    virtual ~PortDelegate() = default;
    // Called on the port's thread for each message. The components are valid during the call only.
    virtual void handlePortMessage(const PortMessage& message) = 0;
};

class UTILIA_EXPORT Port : public std::enable_shared_from_this<Port> {
public:
    // A new receiving port, not yet registered.
    static std::shared_ptr<Port> port();

    virtual ~Port();
    Port(const Port&) = delete;
    Port& operator=(const Port&) = delete;

    bool isValid() const;
    // Ends the port: a receiving port gives its name up and closes its connections, a sending one
    // hangs up. Posts NSPortDidBecomeInvalidNotification with this port as its object; later calls
    // do nothing.
    void invalidate();

    // Sending ports only: whether a message would find room now. Sends none and never waits; a
    // connection that is not made yet is made if it can be. A receiver that reads all that it has
    // got always has room; one that does not has none any more when a quarter of its queue is
    // taken, which is before a send times out. False for an invalid port; one whose receiver turns
    // out to be gone becomes invalid as by a send.
    bool hasRoom();

    // Receiving ports only. The delegate is not held; null ends deliveries. A port without a
    // delegate, or that is not scheduled, lets messages wait.
    void setDelegate(PortDelegate* delegate);
    // Serves the port on the calling thread's run loop.
    void scheduleInRunLoop();
    void removeFromRunLoop();

    struct Implementation;
    Implementation& implementation() { return *implementation_; }

protected:
    explicit Port(std::unique_ptr<Implementation> implementation);

private:
    std::unique_ptr<Implementation> implementation_;
};

// What a failing send throws; it never leaves the object that sends.
// Both texts are among the constants below: throwing one needs no memory.
class UTILIA_EXPORT PortException final : public std::exception {
public:
    PortException(std::string_view name, std::string_view reason) noexcept
        : name_(name), reason_(reason) {}
    std::string_view name() const noexcept { return name_; }
    std::string_view reason() const noexcept { return reason_; }
    const char* what() const noexcept override { return reason_.data(); }

private:
    std::string_view name_;
    std::string_view reason_;
};

// Contract: the names, and one fixed reason for each.
inline constexpr std::string_view NSPortTimeoutException = "NSPortTimeoutException";
inline constexpr std::string_view NSInvalidSendPortException = "NSInvalidSendPortException";
inline constexpr std::string_view kPortTimeoutReason = "[NSPort sendBeforeDate:] timed out";
inline constexpr std::string_view kInvalidSendPortReason =
    "[NSPort sendBeforeDate:] destination port invalid";

// Limits of one message: a sender that exceeds them is told so by NSInvalidArgumentException, a
// receiver that is sent more drops the connection.
inline constexpr std::size_t kPortMessageMaximumComponents = 64;
inline constexpr std::size_t kPortMessageMaximumSize = 64u << 20;  // bytes, all components
inline constexpr std::string_view NSInvalidArgumentException = "NSInvalidArgumentException";
inline constexpr std::string_view kInvalidArgumentReason =
    "[NSPort sendBeforeDate:] message too large";

// An identifier and an ordered list of byte components.
class UTILIA_EXPORT PortMessage final {
public:
    using Component = std::span<const std::uint8_t>;

    // A message to send. The components are not copied: their bytes must stay until the send
    // returns.
    PortMessage(std::shared_ptr<Port> sendPort, std::vector<Component> components);
    // A message that arrived.
    PortMessage(std::uint32_t msgid, std::vector<Component> components);

    std::uint32_t msgid() const { return msgid_; }
    void setMsgid(std::uint32_t msgid) { msgid_ = msgid; }
    std::size_t componentCount() const { return components_.size(); }
    // Empty for an index past the count.
    std::optional<Component> component(std::size_t index) const;
    const std::vector<Component>& components() const { return components_; }

    // Queues the message at the receiver, whole; waits for the connection and for room until the
    // deadline and no longer. Success says queued, not handled. Throws PortException; a receiver
    // that is gone makes the port invalid, and the notification follows from the run loop. A send
    // for which there is no memory is logged and told as a time-out, without waiting.
    void sendBeforeDate(std::chrono::steady_clock::time_point deadline) const;

private:
    friend struct PortMessageAccess;  // a receiver fills one message again and again
    std::shared_ptr<Port> sendPort_;
    std::uint32_t msgid_ = 0;
    std::vector<Component> components_;
};

// The registry of port names, one per user's login. Out of memory, each call answers as if there
// were no such name, with one log line.
class UTILIA_EXPORT PortNameServer final {
public:
    static PortNameServer& systemDefaultPortNameServer();

    // False when a living process holds the name, or the name is not usable (empty, longer than
    // 200 bytes, with "/" or NUL, ending in ".lock", or "." and ".."), or the runtime folder cannot
    // be used; what was left by a process that died is replaced. Never waits.
    bool registerPort(const std::shared_ptr<Port>& port, std::string_view name);
    // Empty when nobody holds the name. Never waits.
    std::shared_ptr<Port> portForName(std::string_view name);
    // Gives the name up when a port of this process holds it. The port stays valid for the
    // connections it has.
    void removePortForName(std::string_view name);

    struct Registration {
        std::string name;
        bool isLive = false;
        std::optional<std::int64_t>
            processIdentifier;  // of a live owner, where the system tells it
    };
    // Every name that was ever registered in this login and is still on record, sorted by name.
    std::vector<Registration> registrations() const;

private:
    PortNameServer() = default;
};

}  // namespace utilia::platform
