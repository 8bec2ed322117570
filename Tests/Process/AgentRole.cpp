// A real agent under the command of its test.

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Common/Platform/Application.h"
#include "Common/UtiliaCommon/ToolDataProvider/ToolDataAgentProvider.h"
#include "Common/UtiliaCommon/ToolDataProvider/ToolDataServerProvider.h"
#include "Tests/Process/SampleImage.h"
#include "Tests/Support/ChildScript.h"

namespace utilia::test {
namespace {

using platform::Application;
using Arguments = ChildScript::Arguments;
using Property = ToolDataAgentProvider::Property;
using Proxy = std::shared_ptr<ToolDataAgentProvider>;

std::string yesOrNo(bool value) { return value ? "yes" : "no"; }

std::string nameOf(Property property) {
    switch (property) {
    case Property::Status:
        return "status";
    case Property::WasLaunched:
        return "was launched";
    case Property::ToolIcon:
        return "tool icon";
    case Property::MenuIcon:
        return "menu icon";
    case Property::MenuText:
        return "menu text";
    case Property::ToolIconNeeded:
        return "tool icon needed";
    case Property::MenuIconNeeded:
        return "menu icon needed";
    case Property::ToolPort:
        return "tool port";
    }
    return "?";
}

class AgentScript final : private platform::ApplicationDelegate {
public:
    explicit AgentScript(ChildRole& self) : script_(self) {
        addListCommands();
        addProxyCommands();
        addSendCommands();
        addKeepingCommands();
        addObserverCommands();
        addApplicationCommands();
    }

    int run() {
        ToolDataServerProvider::sharedInstance();
        return script_.run();
    }

private:
    static ToolDataServerProvider& server() { return ToolDataServerProvider::sharedInstance(); }

    void on(const std::string& name, std::function<void(const Arguments&)> command) {
        script_.on(name, [command = std::move(command)](const Arguments& arguments) {
            command(arguments);
            return std::string();
        });
    }
    // A command whose first argument is the index of a proxy.
    void onProxy(const std::string& name,
                 std::function<std::string(ToolDataAgentProvider&, const Arguments&)> command) {
        script_.on(name, [this, command = std::move(command)](const Arguments& arguments) {
            return command(*proxies_.at(std::stoul(arguments.at(0))), arguments);
        });
    }

    void addListCommands() {
        // path, identifier, canonical name if any
        script_.on("add", [this](const Arguments& a) { return std::to_string(add(a)); });
        on("list-again",
           [this](const Arguments& a) { server().addTool(proxies_.at(std::stoul(a.at(0)))); });
        on("remove",
           [this](const Arguments& a) { server().removeTool(proxies_.at(std::stoul(a.at(0)))); });
        on("forget", [this](const Arguments& a) { proxies_.at(std::stoul(a.at(0))) = nullptr; });
        script_.on("listed", [](const Arguments&) {
            std::vector<std::string> names;
            for (const Proxy& proxy : server().tools()) names.push_back(proxy->name());
            return joinFields(names);
        });
        script_.on("has-permanent-tools",
                   [](const Arguments&) { return yesOrNo(server().permanentTools() != nullptr); });
    }

    std::size_t add(const Arguments& a) {
        auto proxy = std::make_shared<ToolDataAgentProvider>();
        proxy->setupWithToolURL(a.at(0), a.at(1),
                                a.size() > 2 ? std::optional(a[2]) : std::nullopt);
        proxies_.push_back(std::move(proxy));
        return proxies_.size() - 1;
    }

    static std::string stateOf(const ToolDataAgentProvider& proxy) {
        return std::to_string(proxy.status()) + ", " +
               (proxy.wasLaunched() ? "launched" : "not launched") + ", " +
               describe(proxy.toolIcon()) + ", " + describe(proxy.menuIcon()) + ", " +
               proxy.menuText().value_or("none");
    }

    void addProxyCommands() {
        onProxy("state", [](auto& proxy, const Arguments&) { return stateOf(proxy); });
        // Serves the loop until the state is the one given.
        onProxy("wait-for-state", [](auto& proxy, const Arguments& a) {
            (void)ChildScript::waitUntil([&] { return stateOf(proxy) == a.at(1); });
            return stateOf(proxy);
        });
        onProxy("describe", [](auto& proxy, const Arguments&) {
            return joinFields({proxy.name(), proxy.bundleId(),
                               proxy.canonicalName().value_or("none"), proxy.persist()->toolName(),
                               proxy.persist()->toolId()});
        });
        onProxy("has-port",
                [](auto& proxy, const Arguments&) { return yesOrNo(proxy.toolPort() != nullptr); });
        onProxy("wait-for-loss", [](auto& proxy, const Arguments&) {
            (void)ChildScript::waitUntil([&] { return proxy.toolPort() == nullptr; });
            return yesOrNo(proxy.toolPort() == nullptr);
        });
        onProxy("set-status", [](auto& proxy, const Arguments& a) {
            proxy.setStatus(std::stoull(a.at(1)));
            return std::to_string(proxy.status());
        });
        // Nothing of the proxy is touched after the call, which may have freed it.
        onProxy("call", [](auto& proxy, const Arguments& a) {
            if (a.at(1) == "set-status") proxy.setStatus(kToolStatusActive);
            if (a.at(1) == "request-status") proxy.requestStatus();
            if (a.at(1) == "ensure-port") (void)proxy.ensureToolPortOpen();
            if (a.at(1) == "want-tool-icon") proxy.setToolIconNeeded(true);
            if (a.at(1) == "want-menu-icon") proxy.setMenuIconNeeded(true);
            if (a.at(1) == "set-permanent-icons") proxy.setPermanentIcons();
            return std::string();
        });
        onProxy("show", [](auto& proxy, const Arguments& a) {
            proxy.setToolIcon(sampleImage(8, 90));
            proxy.setMenuIcon(sampleImage(8, 91));
            proxy.setMenuText(a.at(1));
            return std::string();
        });
    }

    void addSendCommands() {
        onProxy("want-tool-icon", [](auto& proxy, const Arguments& a) {
            proxy.setToolIconNeeded(a.at(1) == "yes");
            return std::string();
        });
        onProxy("want-menu-icon", [](auto& proxy, const Arguments& a) {
            proxy.setMenuIconNeeded(a.at(1) == "yes");
            return std::string();
        });
        onProxy("ensure-port",
                [](auto& proxy, const Arguments&) { return yesOrNo(proxy.ensureToolPortOpen()); });
        // identifier, parameters if any
        onProxy("send-command", [](auto& proxy, const Arguments& a) {
            const auto id = static_cast<AgentMessage>(std::stoul(a.at(1)));
            if (a.size() < 3) return yesOrNo(proxy.sendCommand(id));
            return yesOrNo(proxy.sendCommand(id, encodeText(a[2])));
        });
        onProxy("request-status", [](auto& proxy, const Arguments&) {
            proxy.requestStatus();
            return stateOf(proxy);
        });
        onProxy("set-permanent-icons", [](auto& proxy, const Arguments&) {
            proxy.setPermanentIcons();
            return stateOf(proxy);
        });
        // Kills the tool and acts before the loop can notice.
        onProxy("kill-and-command", [](auto& proxy, const Arguments& a) {
            killAndWait(static_cast<pid_t>(std::stol(a.at(1))));
            return yesOrNo(proxy.sendCommand(AgentMessage::MenuIconClicked));
        });
        onProxy("kill-and-request", [](auto& proxy, const Arguments& a) {
            killAndWait(static_cast<pid_t>(std::stol(a.at(1))));
            proxy.requestStatus();
            return stateOf(proxy);
        });
        onProxy("kill-and-set-status", [](auto& proxy, const Arguments& a) {
            killAndWait(static_cast<pid_t>(std::stol(a.at(1))));
            proxy.setStatus(std::stoull(a.at(2)));
            return stateOf(proxy);
        });
        // Sends until one fails; milliseconds that the failing one took.
        onProxy("fill-queue", [](auto& proxy, const Arguments&) {
            for (;;) {
                const auto start = std::chrono::steady_clock::now();
                if (proxy.sendCommand(AgentMessage::MenuIconClicked)) continue;
                const auto taken = std::chrono::steady_clock::now() - start;
                return std::to_string(
                    std::chrono::duration_cast<std::chrono::milliseconds>(taken).count());
            }
        });
    }

    void addKeepingCommands() {
        onProxy("never-wait", [this](auto& proxy, const Arguments&) {
            proxy.setSending(ToolDataAgentProvider::Sending::KeepsLate);
            using Kept = ToolDataAgentProvider::Kept;
            proxy.setKeptHandler([this](AgentMessage message, Kept fate) {
                (fate == Kept::Sent ? sentLate_ : undelivered_) +=
                    std::to_string(static_cast<int>(message)) + " ";
            });
            return std::string();
        });
        // So many commands that are numbered from 0; milliseconds that all of them took, or "no".
        onProxy("send-numbered", [](auto& proxy, const Arguments& a) {
            const auto start = std::chrono::steady_clock::now();
            for (int i = 0; i < std::stoi(a.at(1)); ++i) {
                const std::string number = std::to_string(i);
                if (!proxy.sendCommand(AgentMessage::MenuIconClicked, encodeText(number)))
                    return std::string("no");
            }
            const auto taken = std::chrono::steady_clock::now() - start;
            return std::to_string(
                std::chrono::duration_cast<std::chrono::milliseconds>(taken).count());
        });
        onProxy("is-keeping", [](auto& proxy, const Arguments&) {
            return std::string(proxy.isKeeping() ? "yes" : "no");
        });
        script_.on("wait-for-sent-late-end", [this](const Arguments& a) {
            (void)ChildScript::waitUntil([&] { return sentLate_.ends_with(a.at(0)); });
            return sentLate_.substr(sentLate_.size() - std::min(a.at(0).size(), sentLate_.size()));
        });
        // Until the last one that could not be delivered is this.
        script_.on("wait-for-undelivered-end", [this](const Arguments& a) {
            (void)ChildScript::waitUntil([&] { return undelivered_.ends_with(a.at(0)); });
            return undelivered_.substr(undelivered_.size() -
                                       std::min(a.at(0).size(), undelivered_.size()));
        });
    }

    static void killAndWait(pid_t process) {
        const int handle = static_cast<int>(syscall(SYS_pidfd_open, process, 0));
        ::kill(process, SIGKILL);
        pollfd waiting{handle, POLLIN, 0};
        while (poll(&waiting, 1, -1) < 0 && errno == EINTR) {
        }
        close(handle);
    }

    void addObserverCommands() {
        onProxy("observe", [this](auto& proxy, const Arguments& a) {
            const std::string prefix = a.size() > 1 ? a[1] + ": " : "";
            // With the value, to show that it is stored by then.
            handles_.push_back(proxy.observe([this, prefix, seen = &proxy](Property property) {
                std::string value = nameOf(property);
                if (property == Property::Status) value += " " + std::to_string(seen->status());
                if (property == Property::MenuText)
                    value += " " + seen->menuText().value_or("none");
                if (property == Property::MenuIcon) value += " " + describe(seen->menuIcon());
                if (property == Property::ToolIcon) value += " " + describe(seen->toolIcon());
                events_.push_back(prefix + value);
            }));
            return std::to_string(handles_.size() - 1);
        });
        on("end-observation",
           [this](const Arguments& a) { handles_.at(std::stoul(a.at(0))).reset(); });
        // At the next change, ends the observations with these indices.
        onProxy("observe-and-end", [this](auto& proxy, const Arguments& a) {
            handles_.push_back(proxy.observe([this, a](Property) {
                events_.emplace_back("ending");
                for (std::size_t i = 1; i < a.size(); ++i) handles_.at(std::stoul(a[i])).reset();
            }));
            return std::to_string(handles_.size() - 1);
        });
        // At the next change, unlists and forgets these proxies.
        onProxy("observe-and-remove", [this](auto& proxy, const Arguments& a) {
            handles_.push_back(proxy.observe([this, a](Property) {
                events_.emplace_back("removing");
                for (std::size_t i = 1; i < a.size(); ++i) {
                    Proxy& removed = proxies_.at(std::stoul(a[i]));
                    if (removed) server().removeTool(removed);
                    removed = nullptr;
                }
            }));
            return std::string();
        });
        // At the next change, adds a proxy: path, identifier.
        onProxy("observe-and-add", [this](auto& proxy, const Arguments& a) {
            handles_.push_back(proxy.observe([this, a](Property) {
                events_.emplace_back("adding");
                add({a.at(1), a.at(2)});
            }));
            return std::string();
        });
        script_.on("events", [this](const Arguments&) { return joinFields(events_); });
        on("clear-events", [this](const Arguments&) { events_.clear(); });
        script_.on("wait-for-events", [this](const Arguments& a) {
            (void)ChildScript::waitUntil([&] { return events_.size() >= std::stoul(a.at(0)); });
            return joinFields(events_);
        });
    }

    void addApplicationCommands() {
        on("take-delegate",
           [this](const Arguments&) { Application::sharedApplication().setDelegate(this); });
    }

    void silentUpdateResources() override { events_.emplace_back("silentUpdateResources"); }

    ChildScript script_;
    std::string undelivered_;
    std::string sentLate_;
    std::vector<Proxy> proxies_;
    std::vector<Handle> handles_;
    std::vector<std::string> events_;
};

UTILIA_CHILD_ROLE(agent) { return AgentScript(self).run(); }

}  // namespace
}  // namespace utilia::test
