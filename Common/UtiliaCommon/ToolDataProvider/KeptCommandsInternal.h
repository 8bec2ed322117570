#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <optional>

#include "Common/Foundation/Handle.h"
#include "Common/Foundation/Value.h"
#include "Common/Platform/Port.h"
#include "Common/UtiliaCommon/ToolDataProvider/PortProtocol.h"

namespace utilia {

// Commands that a tool had no room for: kept in order, and tried again until they are sent or their time is over.
//
// Threads: those of the port.
class KeptCommands final : public std::enable_shared_from_this<KeptCommands> {
public:
    // Told what became of each command that was kept: sent after all (null), or why not. May end the object.
    using Over = std::function<void(AgentMessage, const platform::PortException* failure)>;
    explicit KeptCommands(Over over) : over_(std::move(over)) {}

    // Sends without waiting, or keeps a copy of what finds no room. Throws PortException for a port that is no longer
    // valid, and for more than what is sensibly kept.
    void send(const std::shared_ptr<platform::Port>& port, AgentMessage message,
              std::optional<platform::PortMessage::Component> params);
    // Whether none is kept now: what was sent last was sent at once.
    bool isEmpty() const { return commands_.empty(); }

private:
    struct Command {
        std::shared_ptr<platform::Port> port;
        AgentMessage message;
        std::optional<Data> params;
        std::chrono::steady_clock::time_point deadline;
    };

    void tryAgain();

    const Over over_;
    std::deque<Command> commands_;
    Handle timer_;
};

// One message without or with a component. Throws PortException.
void sendAgentMessage(const std::shared_ptr<platform::Port>& port, AgentMessage message,
                      std::optional<platform::PortMessage::Component> params,
                      std::chrono::steady_clock::time_point deadline);

}  // namespace utilia
