#pragma once

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "Common/Foundation/Export.h"
#include "Common/Logging/RepeatedLines.h"
#include "Common/Platform/Image.h"
#include "Common/Platform/Port.h"
#include "Common/UtiliaCommon/ToolDataProvider/PortProtocol.h"

namespace utilia {

class ToolDataAgentProvider;

// The agent's receiving end: owns the agent port and applies each message of a tool to every proxy
// that stands for that tool.
//
// A message that no proxy matches is dropped silently; one that lacks a component, or has one of
// the wrong form, is dropped with one log line. So is one for which there is no memory.
//
// Threads: the thread that made it, whose run loop serves the port (the agent's main thread).
class UTILIA_EXPORT ToolDataServerProvider final : public platform::PortDelegate {
public:
    // Made on the first call, which registers the agent port; so only the agent's process calls it.
    static ToolDataServerProvider& sharedInstance();

    // Registers the agent port; a name that is taken goes unnoticed. Out of memory, there may be
    // no port (servicePort() is null), with one log line.
    ToolDataServerProvider();
    ~ToolDataServerProvider() override;
    ToolDataServerProvider(const ToolDataServerProvider&) = delete;
    ToolDataServerProvider& operator=(const ToolDataServerProvider&) = delete;

    const std::shared_ptr<platform::Port>& servicePort() const { return servicePort_; }
    using Tools = std::vector<std::shared_ptr<ToolDataAgentProvider>>;
    // In order of registration, as they are now; later changes do not show in the answer.
    Tools tools() const;
    // Declared for permanent tools; nothing fills it.
    const Tools* permanentTools() const { return nullptr; }

    // Held until removed. Not checked for duplicates: a proxy that is added twice gets each message
    // twice.
    void addTool(std::shared_ptr<ToolDataAgentProvider> tool);
    // Removes every occurrence. Takes memory only while a message is being applied.
    void removeTool(const std::shared_ptr<ToolDataAgentProvider>& tool);

    void handlePortMessage(const platform::PortMessage& message) override;

private:
    std::shared_ptr<platform::Image> decodeImage(MessageBytes bytes, std::string_view what,
                                                 std::string_view toolPath);
    void apply(const DecodedToolMessage& message, ToolDataAgentProvider& tool);

    std::shared_ptr<platform::Port> servicePort_;
    RepeatedLines refusals_;
    // Replaced while others hold it: a pass over the list goes on over the list as it was. Null is
    // an empty list.
    std::shared_ptr<Tools> tools_;
};

}  // namespace utilia
