#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "Common/UtiliaCommon/ToolDataProvider/PortProtocol.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/PrivateBus.h"
#include "Tests/Support/RecordingPort.h"
#include "Tests/Support/TemporaryHome.h"

namespace utilia::test {

// A user's session with buses of its own and no services on them, in which the test is the agent.
class ToolSession {
public:
    ToolSession();

    ChildProcess startServices(const std::vector<std::string>& services) const;
    // What a tool writes to its log lies in log(). Without the buses: it finds neither.
    ChildProcess start(const std::string& bundle, const std::vector<std::string>& arguments = {},
                       std::map<std::string, std::string> environment = {}) const;
    static std::map<std::string, std::string> withoutBuses();

    // Asks the tool for its menu icon and text, which it sends from then on whenever they change.
    void askForMenu(const std::string& bundle);
    static void click(const std::string& bundle) { send(bundle, 107); }
    static void turnOff(const std::string& bundle) { send(bundle, 105); }
    static void send(const std::string& bundle, std::uint32_t id,
                     const std::vector<std::string>& components = {});

    // The next menu text that the tool sends; "" when none comes.
    std::string nextText();
    // Whether it comes to say this within a minute, whatever it says before.
    bool comesToSay(const std::string& text);
    // The first text that matches, whatever comes before; "" when none does within a minute.
    std::string nextTextThatMatches(const testing::Matcher<const std::string&>& matcher);
    // The flag of the last menu icon that was sent: whether it is a template.
    bool isMenuIconTemplate() const { return isMenuIconTemplate_; }
    const std::string& menuIcon() const { return menuIcon_; }
    std::string log() const;
    // Takes in messages for that long.
    static void serve(std::chrono::milliseconds time);
    // Whether it comes to do nothing for that long.
    static bool fallsAsleep(const ChildProcess& tool, std::chrono::milliseconds time);

    const TemporaryHome& home() const { return home_; }
    PrivateBus& sessionBus() { return *sessionBus_; }
    void endSessionBus() { sessionBus_.reset(); }
    void startSessionBus() { sessionBus_.emplace(home_.runtime() / "bus"); }

private:
    TemporaryHome home_;
    std::optional<PrivateBus> sessionBus_{home_.runtime() / "bus"};
    PrivateBus systemBus_{home_.path() / "system-bus"};
    RecordingPort agent_{"7QK2M9ZD4R.com.korvane.utilia.agent.port"};
    bool isMenuIconTemplate_ = false;
    std::string menuIcon_;
};

}  // namespace utilia::test
