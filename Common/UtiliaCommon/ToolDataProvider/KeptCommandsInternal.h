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
    // Told of each command that was kept and could not be sent. May end the object.
    using Failed = std::function<void(AgentMessage, const platform::PortException&)>;
    explicit KeptCommands(Failed failed) : failed_(std::move(failed)) {}

    // Sends without waiting, or keeps a copy of what finds no room. Throws PortException for a port that is no longer
    // valid, and for more than what is sensibly kept.
    void send(const std::shared_ptr<platform::Port>& port, AgentMessage message,
              std::optional<platform::PortMessage::Component> params);

private:
    struct Command {
        std::shared_ptr<platform::Port> port;
        AgentMessage message;
        std::optional<Data> params;
        std::chrono::steady_clock::time_point deadline;
    };

    void tryAgain();

    const Failed failed_;
    std::deque<Command> commands_;
    Handle timer_;
};

// One message without or with a component. Throws PortException.
void sendAgentMessage(const std::shared_ptr<platform::Port>& port, AgentMessage message,
                      std::optional<platform::PortMessage::Component> params,
                      std::chrono::steady_clock::time_point deadline);

}  // namespace utilia
