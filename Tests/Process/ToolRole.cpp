// A real tool under the command of its test.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>
#include <memory>
#include <optional>
#include <thread>

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Common/Logging/Log.h"
#include "Common/Platform/Application.h"
#include "Common/Platform/NotificationCenter.h"
#include "Common/Platform/RunLoop.h"
#include "Common/UtiliaCommon/ToolDataProvider/ToolDataClientProvider.h"
#include "Tests/Process/SampleImage.h"
#include "Tests/Support/ChildScript.h"
#include "Tests/Support/RecordingPort.h"

namespace utilia::test {
namespace {

using platform::Application;
using platform::NotificationCenter;
using Arguments = ChildScript::Arguments;

using Clock = std::chrono::steady_clock;

std::string yesOrNo(bool value) { return value ? "yes" : "no"; }

long millisecondsSince(Clock::time_point start) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

class ToolScript final : private platform::ApplicationDelegate {
public:
    explicit ToolScript(ChildRole& self) : self_(self), script_(self) {
        addValueCommands();
        addSendCommands();
        addBlockCommands();
        addApplicationCommands();
        addAgentCommands();
    }

    // `arguments`: "unlaunched" leaves the launch to a command; "marker" tells the agent, between
    // what is kept at the end and what is sent then, whether the data is kept already.
    int run(const Arguments& arguments) {
        const auto has = [&](std::string_view wanted) {
            return std::find(arguments.begin(), arguments.end(), wanted) != arguments.end();
        };
        client_ = std::make_unique<ToolDataClientProvider>();
        // Told after the data is kept and before anything is sent: the client observes the end
        // only from the launch on.
        const Handle beginning = NotificationCenter::defaultCenter().addObserver(
            platform::NSApplicationWillTerminateNotification, nullptr,
            [this](const void*) { endBegan_ = Clock::now(); });
        Handle marker;
        if (has("marker")) {
            marker = NotificationCenter::defaultCenter().addObserver(
                platform::NSApplicationWillTerminateNotification, nullptr,
                [this](const void*) { sendMarker(); });
        }
        return has("unlaunched") ? script_.runWithoutLaunching() : script_.run();
    }

private:
    void on(const std::string& name, std::function<void(const Arguments&)> command) {
        script_.on(name, [command = std::move(command)](const Arguments& arguments) {
            command(arguments);
            return std::string();
        });
    }

    static std::shared_ptr<platform::Image> image(const Arguments& arguments) {
        if (arguments.empty()) return nullptr;
        auto image = sampleImage(static_cast<std::uint32_t>(std::stoul(arguments[0])),
                                 static_cast<std::uint8_t>(std::stoul(arguments[1])));
        image->setTemplate(arguments.size() > 2);
        return image;
    }

    void addValueCommands() {
        on("set-status",
           [this](const Arguments& a) { client_->setToolStatus(std::stoull(a.at(0))); });
        on("set-tool-icon", [this](const Arguments& a) { client_->setToolIcon(image(a)); });
        on("set-menu-icon", [this](const Arguments& a) { client_->setMenuIcon(image(a)); });
        on("set-menu-text", [this](const Arguments& a) {
            client_->setMenuText(a.empty() ? std::nullopt : std::optional(a[0]));
        });
        script_.on("status",
                   [this](const Arguments&) { return std::to_string(client_->toolStatus()); });
        script_.on("menu-text",
                   [this](const Arguments&) { return client_->menuText().value_or("none"); });
        script_.on("kept", [this](const Arguments&) {
            auto& kept = client_->persist();
            return yesOrNo(kept.isPermanent()) + ", " + kept.menuText().value_or("none") + ", " +
                   describe(kept.toolIcon()) + ", " + describe(kept.menuIcon());
        });
        script_.on("icons", [this](const Arguments&) {
            return describe(client_->toolIcon()) + ", " + describe(client_->menuIcon());
        });
        script_.on("wishes", [this](const Arguments&) { return wishes(); });
        script_.on("wait-for-wishes", [this](const Arguments& a) {
            (void)ChildScript::waitUntil([&] { return wishes() == a.at(0); });
            return wishes();
        });
        script_.on("tool-id", [this](const Arguments&) {
            return std::string(client_->toolId().begin(), client_->toolId().end());
        });
        script_.on("port-name", [this](const Arguments&) { return client_->portName(); });
        on("set-tool-id", [this](const Arguments& a) {
            client_->setToolId(Data(a.at(0).begin(), a.at(0).end()));
        });
        on("set-port-name", [this](const Arguments& a) { client_->setPortName(a.at(0)); });
        on("set-service-port", [this](const Arguments& a) {
            client_->setServicePort(a.empty() ? nullptr : platform::Port::port());
        });
        on("set-agent-port", [this](const Arguments& a) {
            auto& names = platform::PortNameServer::systemDefaultPortNameServer();
            client_->setAgentPort(a.empty() ? nullptr : names.portForName(a[0]));
        });
        on("set-is-connected",
           [this](const Arguments& a) { client_->setIsAgentConnected(a.at(0) == "yes"); });
        script_.on("hash-from-other-bundle", [](const Arguments& a) {
            const auto bundle = platform::Bundle::bundleWithPath(a.at(0));
            return std::to_string(ToolDataClientProvider::portNameHashFromBundle(bundle.get()));
        });
    }

    std::string wishes() const {
        return yesOrNo(client_->toolIconNeeded()) + " " + yesOrNo(client_->menuIconNeeded());
    }

    void addSendCommands() {
        on("send-tool-icon", [this](const Arguments&) { client_->sendToolIcon(); });
        on("send-menu-icon", [this](const Arguments&) { client_->sendMenuIcon(); });
        on("send-menu-text", [this](const Arguments&) { client_->sendMenuText(); });
        on("send-status", [this](const Arguments&) { client_->sendStatus(); });
        on("update-resources", [this](const Arguments&) { client_->updateResources(); });
        // Milliseconds that the quickest of so many sends took.
        script_.on("timed", [this](const Arguments& a) {
            long least = std::numeric_limits<long>::max();
            for (int count = std::stoi(a.at(1)); count > 0; --count) {
                const auto start = Clock::now();
                send(a.at(0));
                least = std::min(least, millisecondsSince(start));
            }
            return std::to_string(least);
        });
        // Sends texts until one fails.
        on("fill-queue", [this](const Arguments&) {
            client_->setMenuText(std::string(1000, 'x'));
            script_.log().clear();
            while (script_.log().lines().empty()) client_->sendMenuText();
        });
        // Kills the agent and sends before the loop can notice.
        on("kill-and-send", [this](const Arguments& a) {
            killAndWait(static_cast<pid_t>(std::stol(a.at(0))));
            for (std::size_t i = 1; i < a.size(); ++i) send(a[i]);
        });
    }

    void send(const std::string& which) {
        if (which == "tool-icon") client_->sendToolIcon();
        if (which == "menu-icon") client_->sendMenuIcon();
        if (which == "menu-text") client_->sendMenuText();
        if (which == "status") client_->sendStatus();
        if (which == "update-resources") client_->updateResources();
    }

    static void killAndWait(pid_t process) {
        const int handle = static_cast<int>(syscall(SYS_pidfd_open, process, 0));
        ::kill(process, SIGKILL);
        pollfd waiting{handle, POLLIN, 0};
        while (poll(&waiting, 1, -1) < 0 && errno == EINTR) {
        }
        close(handle);
    }

    void addBlockCommands() {
        on("install-blocks", [this](const Arguments& a) { installBlocks(a); });
        on("install-blocks-elsewhere",
           [this](const Arguments& a) { std::thread([&] { installBlocks(a); }).join(); });
        on("remove-blocks", [this](const Arguments&) {
            client_->setDateScheduleBlock(nullptr);
            client_->setTurnToolOffBlock(nullptr);
            client_->setClickMenuIconBlock(nullptr);
        });
        script_.on("blocks", [this](const Arguments&) {
            return yesOrNo(static_cast<bool>(client_->dateScheduleBlock())) + " " +
                   yesOrNo(static_cast<bool>(client_->turnToolOffBlock())) + " " +
                   yesOrNo(static_cast<bool>(client_->clickMenuIconBlock()));
        });
        script_.on("wait-for-events", [this](const Arguments& a) {
            (void)ChildScript::waitUntil([&] { return events_.size() >= std::stoul(a.at(0)); });
            return joinFields(events_);
        });
    }

    void installBlocks(const Arguments& which) {
        for (const std::string& name : which) {
            if (name == "date")
                client_->setDateScheduleBlock(
                    [this] { events_.push_back(inLaunch_ ? "date while launching" : "date"); });
            if (name == "click")
                client_->setClickMenuIconBlock([this] { events_.emplace_back("click"); });
            // Seen from outside: the process ends with it.
            if (name == "turn-off") {
                client_->setTurnToolOffBlock([this] {
                    client_->setMenuText("turning off");
                    client_->updateResources();
                });
            }
        }
    }

    void addApplicationCommands() {
        on("take-delegate", [this](const Arguments& a) {
            auto& application = Application::sharedApplication();
            application.setDelegate(this);
            application.setWindowsVisibleHandler([visible = a.at(0) == "yes"] { return visible; });
            application.setActivateHandler([this] { events_.emplace_back("activate"); });
        });
        on("extended-logging",
           [](const Arguments&) { setExtendedLoggingProbe([] { return true; }); });
        script_.on("access", [this](const Arguments& a) {
            return client_->requestAccessToDirectory(a.at(0), "Please choose").value_or("none") +
                   ", " +
                   client_->requestAccessToDirectory(a.at(0), "Please choose", 7).value_or("none");
        });
        script_.on("desktop", [this](const Arguments&) {
            return client_->getToolSpecialDirectory(ToolSpecialDirectory::ToolDesktopDirectory);
        });
        on("end-client", [this](const Arguments&) { client_ = nullptr; });
        // Ends the client and answers whether it gave up the ports that it held.
        script_.on("end-client-and-look", [this](const Arguments&) {
            const auto agent = client_->agentPort();
            const auto own = client_->servicePort();
            client_ = nullptr;
            return std::string(agent && !agent->isValid() ? "agent's port let go"
                                                          : "agent's port kept") +
                   (own->isValid() ? ", own port kept" : ", own port given up");
        });
        on("post-will-terminate", [](const Arguments&) {
            NotificationCenter::defaultCenter().post(
                platform::NSApplicationWillTerminateNotification, nullptr);
        });
        on("send-marker-only",
           [](const Arguments&) { (void)RecordingPort::send(kAgentPortName, 4000, {}); });
        // From now on the tool's end says how many milliseconds its last sends took.
        on("time-end", [this](const Arguments&) {
            afterEnd_ = NotificationCenter::defaultCenter().addObserver(
                platform::NSApplicationWillTerminateNotification, nullptr, [this](const void*) {
                    self_.say(joinFields({std::to_string(millisecondsSince(endBegan_))}));
                });
        });
    }

    bool applicationShouldHandleReopen(bool hasVisibleWindows,
                                       const std::vector<std::string>&) override {
        events_.emplace_back(hasVisibleWindows ? "reopen with windows" : "reopen without windows");
        return true;
    }

    void addAgentCommands() {
        script_.on("check-agent-port",
                   [this](const Arguments&) { return yesOrNo(client_->checkAgentPort()); });
        on("unsubscribe", [this](const Arguments&) { client_->unsubscribeFromAgentPort(); });
        script_.on("is-connected", [this](const Arguments&) {
            return yesOrNo(client_->isAgentConnected() && client_->agentPort());
        });
        script_.on("wait-for-loss", [this](const Arguments&) {
            (void)ChildScript::waitUntil([&] { return !client_->isAgentConnected(); });
            return yesOrNo(!client_->isAgentConnected() && !client_->agentPort());
        });
        script_.on("launch-agent", [this](const Arguments&) {
            inLaunch_ = true;
            const auto start = Clock::now();
            const bool connected = client_->launchAgentIfNeeded();
            const long taken = millisecondsSince(start);
            inLaunch_ = false;
            return yesOrNo(connected) + " " + std::to_string(taken);
        });
    }

    void sendMarker() {
        const ToolPersistentDataReader stored(client_->persist().toolName(),
                                              client_->persist().toolId());
        (void)RecordingPort::send(kAgentPortName, 4000, {yesOrNo(stored.isPermanent())});
    }

    ChildRole& self_;
    ChildScript script_;
    std::unique_ptr<ToolDataClientProvider> client_;
    std::vector<std::string> events_;
    Clock::time_point endBegan_;
    Handle afterEnd_;
    bool inLaunch_ = false;
};

UTILIA_CHILD_ROLE(tool) { return ToolScript(self).run(self.arguments); }

// Says its log lines aloud, because it does not live to be asked.
class SpeakingSink final : public LogSink {
public:
    explicit SpeakingSink(ChildRole& self) : self_(self) {}
    bool write(std::string_view line) noexcept override {
        self_.say(std::string(line));
        return true;
    }

private:
    ChildRole& self_;
};

UTILIA_CHILD_ROLE(toolThatAsksForAnUnknownDirectory) {
    setLogSink(std::make_shared<SpeakingSink>(self));
    const ToolDataClientProvider client;
    (void)client.getToolSpecialDirectory(static_cast<ToolSpecialDirectory>(1));
    return 0;
}

}  // namespace
}  // namespace utilia::test
