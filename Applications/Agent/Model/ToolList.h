#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Applications/Agent/Model/ToolEntry.h"
#include "Common/Foundation/Handle.h"
#include "Common/Foundation/Result.h"
#include "Common/UtiliaCommon/AdminSettings/ToolSets.h"
#include "Common/UtiliaCommon/ToolDataProvider/ToolDataAgentProvider.h"

namespace utilia::agent {

// What comes of telling a tool something.
enum class Telling {
    No,      // it does not run, or cannot be told
    NoRoom,  // it does not read, and no more is kept for it
    Kept,
    Told,
};

// Key of the administrator's settings: true leaves restricted tools out instead of showing them grey.
inline constexpr std::string_view kHideRestrictedToolsKey = "HideRestrictedTools";

// The tools that the agent shows: those of the catalogue that are installed, or that should be. Knows no toolkit.
//
//     restricted   listed with that condition, or left out where the administrator wants it so
//     damaged      a desktop entry names the tool, and leads to no usable bundle
//     missing      it is to be started, and is not installed: it is in the list of tools to start at login, or has asked
//                  for that itself, or for a date that has come
//
// Restricted, damaged and missing tools have no proxy, so they are never spoken to.
//
// A tool that does not read what it is told stops nobody: messages to it are kept in order until their time-out (10 s),
// and what could not be delivered by then is told to the handler.
//
// Changes are gathered: observers are told at most once in `gather` of everything that changed, and of nothing that
// is as they were told last. A tool that says the same again, or twice in that time, costs one call or none. One that ends
// and comes back in that time is told of, although it looks the same.
//
// Threads: the agent's main thread, whose loop gathers. It makes the shared port server, so only the agent has one.
class ToolList final {
public:
    static constexpr std::chrono::milliseconds kGather{100};

    // Empty until reload().
    explicit ToolList(std::chrono::milliseconds gather = kGather);
    ~ToolList();
    ToolList(const ToolList&) = delete;
    ToolList& operator=(const ToolList&) = delete;

    // Looks again at what is installed and allowed, and tells observers. Proxies of tools that stay where they are
    // are kept.
    void reload();

    // Ordered by name.
    const std::vector<ToolEntry>& entries() const { return entries_; }
    const ToolEntry* find(std::string_view identifier) const;  // valid until the next change

    struct Change {
        bool isListChanged = false;  // tools have come, gone or changed their places
        // Identifiers of those that look different, or were started again, new ones included.
        std::vector<std::string> tools;
        std::vector<std::string> gone;
    };
    using Observer = std::function<void(const Change&)>;
    Handle observe(Observer observer);

    // The user chose the tool: one that runs and has a port is told of a click on its menu icon, any other is started
    // (or brought to the front, when it runs without a port). Fails with Refused for a tool that is not ready.
    Result<void> activate(std::string_view identifier);
    // Fails with NotFound when it does not run.
    Result<void> turnOff(std::string_view identifier);
    // Sends a tool the message: not to one that does not run, and it is kept for one that has no room for it, unless too
    // much is kept for it already.
    Telling tell(std::string_view identifier, AgentMessage message);
    // Whether the tool runs and has no room for a message now. Sends nothing.
    bool isDeaf(std::string_view identifier) const;
    // Told of each message that was kept, when the tool has it, or has not taken it in time.
    using Kept = ToolDataAgentProvider::Kept;
    using KeptHandler =
        std::function<void(const std::string& identifier, AgentMessage message, Kept fate)>;
    void setKeptHandler(KeptHandler over);

private:
    struct Watched {
        std::shared_ptr<ToolDataAgentProvider> proxy;
        Handle observation;
    };
    struct Observers;

    std::vector<ToolEntry> lookAround() const;
    ToolEntry examine(const std::string& identifier, const ToolSets& toolSets) const;
    void watch(const ToolEntry& entry);
    void forget(const std::string& identifier);
    void changed(const std::string& identifier);
    void openPorts(const std::set<std::string>& identifiers) const;
    void deliver();
    ToolEntry withState(ToolEntry entry) const;
    ToolDataAgentProvider* proxyOf(std::string_view identifier) const;

    const std::chrono::milliseconds gather_;
    std::vector<ToolEntry> entries_;
    std::map<std::string, Watched, std::less<>> watched_;
    std::set<std::string> dirty_;
    std::set<std::string> restarted_;  // or started, or ended: have another port, or none
    std::shared_ptr<Observers> observers_;
    Handle delivery_;
    KeptHandler keptOver_;
};

}  // namespace utilia::agent
