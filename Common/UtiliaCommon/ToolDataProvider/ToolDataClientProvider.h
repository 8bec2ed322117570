#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Handle.h"
#include "Common/Foundation/Value.h"
#include "Common/Logging/RepeatedLines.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/Image.h"
#include "Common/Platform/Port.h"
#include "Common/UtiliaCommon/PersistentData/ToolPersistentDataLazyWriter.h"
#include "Common/UtiliaCommon/ToolDataProvider/AtomicBlock.h"
#include "Common/UtiliaCommon/ToolDataProvider/PortProtocol.h"

namespace utilia {

enum class ToolSpecialDirectory : std::uint64_t { ToolDesktopDirectory = 0 };

// How a tool talks with the agent. It says what the agent shall show for the tool, and calls back
// what the tool has installed when the agent gives an order.
//
// What is set here reaches two places: `persist`, which stores it when the tool ends, and the
// agent, as far as there is one and it has asked. Nothing has to be there first. A failing send
// costs one log line and is not tried again. Only an agent that does not read holds a sender up,
// and for no longer than the message's time-out (0.1 s to 30 s). Out of memory, what a call was to
// set, send or answer is left out, with one log line; a provider that is made then may lack its
// port (servicePort() is null), or stand for no tool.
//
// Threads: the thread that made it, whose run loop serves the port (the main thread in practice);
// blocks and handlers are called there. The three blocks may be installed from any thread.
class UTILIA_EXPORT ToolDataClientProvider final : public platform::PortDelegate {
public:
    // Registers the tool's port (a name that is taken already goes unnoticed) and takes over what
    // is persisted of a permanent tool: status 2 and the menu text. Sends nothing.
    ToolDataClientProvider();
    ~ToolDataClientProvider() override;
    ToolDataClientProvider(const ToolDataClientProvider&) = delete;
    ToolDataClientProvider& operator=(const ToolDataClientProvider&) = delete;

    // The hash that names the tool's port: of the main bundle's path, under the canonical name that
    // the given bundle's Info.plist declares. The path is always the main bundle's, whatever bundle
    // is given.
    static std::uint64_t portNameHashFromBundle(const platform::Bundle* bundle);

    const Data& toolId() const { return toolId_; }  // UTF-8 of the main bundle's path
    const std::string& portName() const { return portName_; }
    const std::shared_ptr<platform::Port>& servicePort() const { return servicePort_; }
    const std::shared_ptr<platform::Port>& agentPort() const { return agentPort_; }
    ToolPersistentDataLazyWriter& persist() { return *persist_; }
    bool isAgentConnected() const { return isAgentConnected_; }

    // Each only stores: nothing is registered, looked up, sent or given up. The identity goes into
    // the messages that follow. An agent's port that is set here is not watched, so only the sends
    // tell that it has ended. An own port that is replaced delivers nothing here any more.
    void setToolId(Data toolId) { toolId_ = std::move(toolId); }
    void setPortName(std::string portName) { portName_ = std::move(portName); }
    void setServicePort(std::shared_ptr<platform::Port> servicePort);
    void setAgentPort(std::shared_ptr<platform::Port> agentPort);
    void setIsAgentConnected(bool isAgentConnected) { isAgentConnected_ = isAgentConnected; }

    // What the agent asked for; nothing at first. Setting one here sends nothing.
    bool toolIconNeeded() const { return toolIconNeeded_; }
    bool menuIconNeeded() const { return menuIconNeeded_; }  // the menu text too
    void setToolIconNeeded(bool needed) { toolIconNeeded_ = needed; }
    void setMenuIconNeeded(bool needed) { menuIconNeeded_ = needed; }

    std::uint64_t toolStatus() const { return toolStatus_; }
    const std::shared_ptr<platform::Image>& toolIcon() const { return toolIcon_; }
    const std::shared_ptr<platform::Image>& menuIcon() const { return menuIcon_; }
    const std::optional<std::string>& menuText() const { return menuText_; }

    // Each is kept for the end, stored, and sent when the agent wants it; the status always.
    void setToolIcon(std::shared_ptr<platform::Image> toolIcon);
    void setMenuIcon(std::shared_ptr<platform::Image> menuIcon);
    void setMenuText(std::optional<std::string> menuText);
    void setToolStatus(std::uint64_t toolStatus);

    // Called when a date schedule fired, before the application terminates because it was turned
    // off, and when its menu icon was clicked. Without the last one a click acts as a reopen of the
    // application.
    std::function<void()> dateScheduleBlock() const { return dateScheduleBlock_.get(); }
    std::function<void()> turnToolOffBlock() const { return turnToolOffBlock_.get(); }
    std::function<void()> clickMenuIconBlock() const { return clickMenuIconBlock_.get(); }
    void setDateScheduleBlock(std::function<void()> block) {
        dateScheduleBlock_.set(std::move(block));
    }
    void setTurnToolOffBlock(std::function<void()> block) {
        turnToolOffBlock_.set(std::move(block));
    }
    void setClickMenuIconBlock(std::function<void()> block) {
        clickMenuIconBlock_.set(std::move(block));
    }

    // One message each, whatever the agent's wishes; nothing without an agent. A menu icon or text
    // that is not set is not sent; a tool icon that is not set is sent as "none".
    void sendToolIcon();
    void sendMenuIcon();
    void sendMenuText();
    void sendStatus();
    // Asks the agent to fetch its resources anew.
    void updateResources();

    // Finds the agent's port unless it is held; never waits.
    bool checkAgentPort();
    // Starts the agent unless its port is there, and serves the run loop for at most about 5 s
    // until it is. Answers whether the agent is connected. Messages may be handled inside the call.
    bool launchAgentIfNeeded();
    // Lets the agent's port go; the next send looks for it again.
    void unsubscribeFromAgentPort();

    // What happens when a message, or news of the application or the agent's port, arrives; called
    // from the loop and the notification centre.
    void handlePortMessage(const platform::PortMessage& message) override;
    void appDidFinishLaunching();  // from then on, the end of the application is awaited
    void appWillTerminate();       // sends icon, menu icon and text, wanted or not
    void portDidBecomeInvalid();   // lets the agent's port go

    // The path itself when the user can write there, else empty. Message and options are not used.
    std::optional<std::string> requestAccessToDirectory(std::string_view path,
                                                        std::string_view message,
                                                        std::uint64_t options = 0) const;
    // The path of the user's Desktop folder. Any other directory than ToolDesktopDirectory ends the
    // process.
    std::string getToolSpecialDirectory(ToolSpecialDirectory directory) const;

private:
    void applyAgentMessage(const DecodedAgentMessage& message);
    void turnToolOff();
    void clickMenuIcon();
    void openServicePort();
    void send(ToolMessage message, std::vector<platform::PortMessage::Component> components,
              std::string_view failureFormat);

    Data toolId_;
    std::string portName_;
    std::shared_ptr<platform::Port> servicePort_;
    std::shared_ptr<platform::Port> agentPort_;
    std::optional<ToolPersistentDataLazyWriter> persist_;  // never empty after the construction
    bool isAgentConnected_ = false;
    bool toolIconNeeded_ = false;
    bool menuIconNeeded_ = false;
    std::uint64_t toolStatus_ = kToolStatusInactive;
    std::shared_ptr<platform::Image> toolIcon_;
    std::shared_ptr<platform::Image> menuIcon_;
    std::optional<std::string> menuText_;
    AtomicBlock dateScheduleBlock_;
    AtomicBlock turnToolOffBlock_;
    AtomicBlock clickMenuIconBlock_;
    RepeatedLines refusals_;
    Handle didFinishLaunching_;
    Handle willTerminate_;
    Handle agentPortInvalid_;
};

}  // namespace utilia
