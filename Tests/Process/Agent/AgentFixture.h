#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Common/UtiliaCommon/ToolDataProvider/PortProtocol.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/PrivateBus.h"
#include "Tests/Support/PrivateMounts.h"
#include "Tests/Support/RecordingPort.h"
#include "Tests/Support/ReportPipe.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"
#include "Tests/Support/VirtualDisplay.h"

namespace utilia::agent {

inline constexpr const char* kPython = "/usr/bin/python3";  // the one that has the bindings
inline constexpr const char* kTimer = "com.korvane.utilia.Timer";
inline constexpr const char* kClock = "com.korvane.utilia.WorldClock";

// The agent as it is built, in a private session. Its tools are bundles of the test, and the test speaks for them.
class AgentApplicationTest : public testing::Test {
protected:
    using Environment = std::map<std::string, std::string>;

    // What a session without a display is to Qt.
    Environment offscreen(const std::string& language = "en") const {
        return {{"QT_QPA_PLATFORM", "offscreen"},
                {"LANGUAGE", language},
                {"DBUS_SESSION_BUS_ADDRESS", bus_ ? bus_->address() : "disabled:"}};
    }
    test::ChildProcess startAgent(const Environment& environment,
                                  const std::vector<std::string>& arguments = {},
                                  const test::PrivateMounts* mounts = nullptr) const {
        test::ChildProcessOptions options;
        options.environment = environment;
        // No test asks the machine's own login manager.
        options.environment.try_emplace("DBUS_SYSTEM_BUS_ADDRESS", "disabled:");
        options.mounts = mounts;
        options.standardError = home_.path() / "agent.log";
        options.diesWithTest = true;
        return test::ChildProcess::program(test::places::kAgentProgram, arguments, options);
    }
    std::string log() const {
        std::ifstream file(home_.path() / "agent.log");
        return {std::istreambuf_iterator<char>(file), {}};
    }
    void startBus() { bus_ = std::make_unique<test::PrivateBus>(home_.runtime() / "bus"); }
    // It says "ready" when it has the name.
    test::ChildProcess queuePanel() const {
        test::ChildProcessOptions options;
        options.environment = {{"DBUS_SESSION_BUS_ADDRESS", bus_->address()}};
        options.diesWithTest = true;
        return test::ChildProcess::program(kPython, {test::places::kPanel}, options);
    }
    test::ChildProcess startPanel() const {
        auto panel = queuePanel();
        EXPECT_EQ(panel.waitForLine(), "ready");
        return panel;
    }
    static std::string ask(test::ChildProcess& panel, const std::string& command) {
        panel.say(command);
        return panel.waitForLine().value_or("no answer");
    }
    static void expectItem(test::ChildProcess& panel, const test::ChildProcess& agent) {
        EXPECT_EQ(panel.waitForLine(),
                  "item org.kde.StatusNotifierItem-" + std::to_string(agent.pid()) + "-1");
    }
    // The menu once it is as expected, or as it is after a long while.
    [[nodiscard]] static std::string menuThatBecomes(test::ChildProcess& panel,
                                                     const std::string& expected) {
        std::string menu;
        (void)test::eventually([&] { return (menu = ask(panel, "menu")) == expected; });
        return menu;
    }
    static void speak(const test::TestBundle& tool, std::uint32_t id,
                      std::vector<std::string> parts) {
        parts.insert(parts.begin(), tool.path());
        ASSERT_TRUE(
            test::eventually([&] { return test::RecordingPort::send(kAgentPortName, id, parts); }));
    }
    static void sayStatus(const test::TestBundle& tool, char status) {
        speak(tool, 100, {std::string(1, status) + std::string(7, '\0')});
    }
    // The agent's list on the bus, or what is said where there is none.
    std::string published() const {
        return test::runProgram({"gdbus", "call", "--session", "--dest", "com.korvane.utilia",
                                 "--object-path", "/com/korvane/utilia/Tools", "--method",
                                 "com.korvane.utilia.Tools1.List"},
                                {{"DBUS_SESSION_BUS_ADDRESS", bus_->address()}})
            .text;
    }
    static std::string portOf(const test::TestBundle& tool) {
        return toolPortName(canonicalToolPath(tool.path(), std::nullopt));
    }
    void install(const test::TestBundle& tool) { tool.install("startedTool", {reports_.path()}); }

    test::TemporaryHome home_;
    std::unique_ptr<test::PrivateBus> bus_;
    test::ReportPipe reports_{home_.path()};
    test::TestBundle timer_{home_, {.name = "Timer", .bundleIdentifier = kTimer}};
    test::TestBundle clock_{home_, {.name = "World_Clock", .bundleIdentifier = kClock}};
};

inline constexpr const char* kOwnEntries = "-; Show Window; Settings…; -; Quit Korvane Utilia";

}  // namespace utilia::agent
