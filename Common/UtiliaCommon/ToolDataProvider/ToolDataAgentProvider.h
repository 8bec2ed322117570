#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Handle.h"
#include "Common/Platform/Image.h"
#include "Common/Platform/Port.h"
#include "Common/UtiliaCommon/PersistentData/ToolPersistentDataReader.h"
#include "Common/UtiliaCommon/ToolDataProvider/PortProtocol.h"

namespace utilia {

class KeptCommands;

// The agent's stand-in for one tool: what the agent shows for it, as the tool last reported it or
// as it is persisted, and the way to tell the tool something.
//
//     auto tool = std::make_shared<ToolDataAgentProvider>();
//     tool->setupWithToolURL("/opt/utilia/Timer.app", "com.korvane.utilia.Timer", std::nullopt);
//     tool->setMenuIconNeeded(true);
//     tool->requestStatus();
//
// The shared port server holds a proxy from its set-up until ToolDataServerProvider::removeTool().
//
// Out of memory, what a call was to set up, send or observe is left out, with one log line.
//
// Threads: the agent's main thread.
class UTILIA_EXPORT ToolDataAgentProvider final
    : public std::enable_shared_from_this<ToolDataAgentProvider> {
public:
    // What an observer is told has been set.
    enum class Property {
        Status,
        WasLaunched,
        ToolIcon,
        MenuIcon,
        MenuText,
        ToolIconNeeded,
        MenuIconNeeded,
        ToolPort,
    };
    using Observer = std::function<void(Property)>;

    // What becomes of a message that the tool has no room for.
    enum class Sending {
        Waits,  // the call waits for room, at most the message's time-out
        KeepsLate  // the call never waits: the message is kept, in order, and tried again until its time-out
    };

    ToolDataAgentProvider();
    ~ToolDataAgentProvider();
    ToolDataAgentProvider(const ToolDataAgentProvider&) = delete;
    ToolDataAgentProvider& operator=(const ToolDataAgentProvider&) = delete;

    // Says which tool this is, and registers with the shared port server. `toolURL` is the path of
    // the tool's bundle. Called once, right after creation, on an object that a shared_ptr holds.
    void setupWithToolURL(std::string_view toolURL, std::string_view bundleId,
                          std::optional<std::string> canonicalName);

    const std::string& name() const { return name_; }  // path of the tool's bundle
    const std::optional<std::string>& canonicalName() const { return canonicalName_; }
    const std::string& bundleId() const { return bundleId_; }
    const std::shared_ptr<platform::Port>& toolPort() const { return toolPort_; }
    std::uint64_t status() const { return status_; }
    bool wasLaunched() const { return wasLaunched_; }
    const std::shared_ptr<platform::Image>& toolIcon() const { return toolIcon_; }
    const std::shared_ptr<platform::Image>& menuIcon() const { return menuIcon_; }
    const std::optional<std::string>& menuText() const { return menuText_; }
    bool toolIconNeeded() const { return toolIconNeeded_; }
    bool menuIconNeeded() const { return menuIconNeeded_; }
    const std::shared_ptr<ToolPersistentDataReader>& persist() const { return persist_; }

    // Looks the tool's port up first, whatever the value; 1 is stored only when the port is open
    // (else 0), every other value as it is.
    void setStatus(std::uint64_t status);
    void setWasLaunched(bool wasLaunched);
    void setToolIcon(std::shared_ptr<platform::Image> toolIcon);
    void setMenuIcon(std::shared_ptr<platform::Image> menuIcon);
    void setMenuText(std::optional<std::string> menuText);
    void setPersist(std::shared_ptr<ToolPersistentDataReader> persist);

    // Whether the agent wants these; a change is told to the tool.
    void setToolIconNeeded(bool needed);
    void setMenuIconNeeded(bool needed);
    void sendToolIconNeeded();
    void sendMenuIconNeeded();

    // Finds the tool's port unless it is held; a port newly found is told both wishes. Answers
    // whether one is held.
    bool ensureToolPortOpen();
    // How this proxy sends, wishes and requests included: a new one Waits. An agent with a window had
    // better not, since a stopped tool would stop the window. Set it before the first message.
    void setSending(Sending sending);
    // What becomes of a kept message. Failed is logged before it is told.
    enum class Kept { Sent, Failed };
    // Told of each kept message when it is over. It may remove the proxy.
    void setKeptHandler(std::function<void(AgentMessage, Kept)> over);
    // Whether messages are kept, the one that was sent last among them.
    bool isKeeping() const;

    // One message to the tool, with the data as its only component. Waits at most 10 s, or keeps the
    // message and answers true (Sending). False when the tool cannot be reached or the send fails
    // (which is logged).
    bool sendCommand(AgentMessage message,
                     std::optional<platform::PortMessage::Component> params = std::nullopt);
    // Asks the tool for its status; of a permanent tool that cannot be asked, shows what is
    // persisted, also when a kept request turns out to be in vain.
    void requestStatus();
    // Shows the persisted icon, menu icon and text, as far as there are any.
    void setPermanentIcons();

    // Tells of every value that is set, after it is stored, also when it is the same. The observer
    // may end handles and remove proxies.
    Handle observe(Observer observer);

    // Whether a message of a tool with this path is for this proxy: the bundle's path or the
    // canonical one, to the letter.
    bool matches(std::string_view toolPath) const;

    // What happens when the tool's port ends: an active tool becomes inactive, of a permanent one
    // the persisted data is shown. Called from the notification centre.
    void portDied();

private:
    struct Observers;

    void changed(Property property);
    void sendWish(AgentMessage message, bool needed);
    void send(AgentMessage message, std::optional<platform::PortMessage::Component> params);
    void keptCommandIsOver(AgentMessage message, const platform::PortException* failure);
    void showPersisted();

    std::string name_;
    std::optional<std::string> canonicalName_;
    std::string canonicalPath_;
    std::string bundleId_;
    std::shared_ptr<platform::Port> toolPort_;
    Handle toolPortInvalid_;
    std::uint64_t status_ = kToolStatusInactive;
    bool wasLaunched_ = false;
    std::shared_ptr<platform::Image> toolIcon_;
    std::shared_ptr<platform::Image> menuIcon_;
    std::optional<std::string> menuText_;
    bool toolIconNeeded_ = false;
    bool menuIconNeeded_ = false;
    std::shared_ptr<ToolPersistentDataReader> persist_;
    std::shared_ptr<Observers> observers_;
    std::shared_ptr<KeptCommands> kept_;  // null: sending waits
    std::function<void(AgentMessage, Kept)> keptOver_;
};

}  // namespace utilia
