#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Common/UtiliaCommon/ToolDataProvider/PortProtocol.h"
#include "Tests/Process/SampleImage.h"
#include "Tests/Support/ChildScript.h"
#include "Tests/Support/RecordingPort.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"

namespace utilia::test {

// A real agent whose tools are played by the test, unless they are real too.
class AgentTest : public testing::Test {
protected:
    static constexpr std::string_view kAgentPort = "7QK2M9ZD4R.com.korvane.utilia.agent.port";
    static constexpr const char* kToolPath = "/Applications/Sample Tool.app";
    static constexpr const char* kToolIdentifier = "com.korvane.utilia.SampleTool";
    static constexpr const char* kNothingShown = "0, not launched, none, none, none";

    ScriptedChild startAgent() { return ScriptedChild(bundle_.role("agent")); }

    static std::string add(ScriptedChild& agent,
                           std::vector<std::string> arguments = {kToolPath, kToolIdentifier}) {
        return agent.ask("add", arguments);
    }
    static void sendToAgent(std::uint32_t id, const std::vector<std::string>& components) {
        ASSERT_TRUE(RecordingPort::send(kAgentPort, id, components));
    }
    static std::string statusBytes(std::uint8_t status) {
        return std::string(1, static_cast<char>(status)) + std::string(7, '\0');
    }
    static RecordedMessage wish(std::uint32_t id, bool wanted) {
        return {id, {std::string(1, wanted ? '\1' : '\0')}};
    }
    // What the agent has shown once everything sent to it up to now is handled.
    static std::string stateAfterAll(ScriptedChild& agent, const std::string& index) {
        const std::string barrier = agent.ask("add", {"/barrier.app", "com.korvane.barrier"});
        sendToAgent(108, {"/barrier.app", "reached"});
        EXPECT_EQ(agent.ask("wait-for-state", {barrier, "0, not launched, none, none, reached"}),
                  "0, not launched, none, none, reached");
        agent.ask("remove", {barrier});
        return agent.ask("state", {index});
    }

    TemporaryHome home_;
    TestBundle bundle_{
        home_, {.name = "Utilia", .bundleIdentifier = "com.korvane.utilia", .program = "utilia"}};
};

using Messages = std::vector<RecordedMessage>;

}  // namespace utilia::test
