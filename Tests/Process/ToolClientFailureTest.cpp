// A tool whose agent is dead, stopped, or yet to be launched.

#include <chrono>

#include "Common/Platform/Workspace.h"
#include "Tests/Process/ToolFixture.h"

namespace utilia::test {
namespace {

using platform::RunningApplication;

class ToolFailures : public ToolTest {
protected:
    // An agent that holds the name and does not read.
    ChildProcess startDeafAgent() {
        ChildProcess agent = ChildProcess::role("deafPort", {std::string(kAgentPort)});
        EXPECT_EQ(agent.waitForLine(), "registered");
        return agent;
    }

    static std::string failure(const std::string& what, bool isTimeout) {
        return "Failed to send " + what + " to Agent port. Exception: " +
               (isTimeout ? "NSPortTimeoutException Reason: [NSPort sendBeforeDate:] timed out"
                          : "NSInvalidSendPortException Reason: [NSPort sendBeforeDate:] "
                            "destination port invalid");
    }
};

class ToolLaunchesAgent : public ToolTest {
protected:
    // The answer of launchAgentIfNeeded, and how long it took.
    static std::pair<std::string, std::chrono::milliseconds> parse(const std::string& answer) {
        const auto blank = answer.find(' ');
        return {answer.substr(0, blank),
                std::chrono::milliseconds(std::stol(answer.substr(blank)))};
    }

    // Serves the loop until the launched agent runs; the tool is then inside its wait.
    static void waitForAgentProcess() {
        EXPECT_TRUE(eventually([] {
            return !RunningApplication::runningApplicationsWithBundleIdentifier(
                        "com.korvane.utilia")
                        .empty();
        }));
    }

    TestBundle agent_{
        home_, {.name = "Utilia", .bundleIdentifier = "com.korvane.utilia", .program = "utilia"}};
};

TEST_F(ToolFailures, EachSendToADeadAgentLogsItsOwnLine) {
    const struct {
        const char* send;
        const char* text;
    } cases[] = {
        {"tool-icon", "Icon"},
        {"menu-icon", "Menu Icon"},
        {"menu-text", "Menu text"},
        {"status", "Status"},
        {"update-resources", "command to update resources"},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.send);
        ChildProcess agent = startDeafAgent();
        ScriptedChild tool = startTool();
        tool.ask("set-tool-icon", {"8", "1"});
        tool.ask("set-menu-icon", {"8", "2"});
        tool.ask("set-menu-text", {"text"});
        ASSERT_EQ(tool.ask("check-agent-port"), "yes");
        tool.ask("kill-and-send", {std::to_string(agent.pid()), each.send});
        EXPECT_EQ(tool.log(), std::vector<std::string>{failure(each.text, false)});
        EXPECT_EQ(tool.ask("wait-for-loss"), "yes") << "the loss is noticed all the same";
        tool.ask("send-status");
        EXPECT_EQ(tool.log().size(), 1u) << "and then sends are silent";
    }
}

TEST_F(ToolFailures, FailedSendIsNotRepeatedAndTheNextAgentIsFound) {
    ChildProcess dead = startDeafAgent();
    ScriptedChild tool = startTool();
    ASSERT_EQ(tool.ask("check-agent-port"), "yes");
    tool.ask("kill-and-send", {std::to_string(dead.pid()), "status"});
    EXPECT_EQ(tool.ask("wait-for-loss"), "yes");
    RecordingPort agent(kAgentPort);
    ASSERT_TRUE(agent.isRegistered());
    tool.ask("set-status", {"1"});
    EXPECT_EQ(agent.take(1), Messages{status(1)});
    EXPECT_EQ(tool.log(), std::vector<std::string>{failure("Status", false)});
}

TEST_F(ToolFailures, AgentThatDoesNotReadCostsTheTimeoutAndNoMore) {
    ChildProcess agent = startDeafAgent();
    ScriptedChild tool = startTool();
    tool.ask("set-tool-icon", {"8", "1"});
    tool.ask("set-menu-icon", {"8", "2"});
    tool.ask("fill-queue");
    const struct {
        const char* send;
        const char* text;
        long timeout;
    } cases[] = {
        {"tool-icon", "Icon", 500},
        {"menu-icon", "Menu Icon", 500},
        {"menu-text", "Menu text", 500},
        {"update-resources", "command to update resources", 100},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.send);
        tool.ask("clear-log");
        // The quickest of three: other programs only ever make a send longer, so the least of the
        // three is the nearest to what the send itself costs.
        const long taken = std::stol(tool.ask("timed", {each.send, "3"}));
        EXPECT_EQ(tool.log(), std::vector<std::string>(3, failure(each.text, true)));
        EXPECT_GE(taken, each.timeout);
        EXPECT_LT(taken, each.timeout + 5'000);
        EXPECT_EQ(tool.ask("is-connected"), "yes") << "a time-out does not drop the agent's port";
    }
}

// Takes the half minute that it is about.
TEST_F(ToolFailures, StatusWaitsThirtySecondsForAnAgentThatDoesNotRead) {
    ChildProcess agent = startDeafAgent();
    ScriptedChild tool = startTool();
    tool.ask("fill-queue");
    tool.ask("clear-log");
    tool.tell("timed", {"status", "1"});
    const long taken = std::stol(tool.answer(std::chrono::seconds(60)));
    EXPECT_EQ(tool.log(), std::vector<std::string>{failure("Status", true)});
    EXPECT_GE(taken, 30'000);
    EXPECT_LT(taken, 50'000);
    EXPECT_EQ(tool.ask("is-connected"), "yes");
}

TEST_F(ToolFailures, TimeOutIsLoggedWithItsNameAndReason) {
    ChildProcess agent = startDeafAgent();
    ScriptedChild tool = startTool();
    tool.ask("fill-queue");
    EXPECT_EQ(tool.log(), std::vector<std::string>{failure("Menu text", true)});
}

TEST_F(ToolFailures, AgentThatIsKilledWhileTheQueueIsFullIsNoticed) {
    ChildProcess agent = startDeafAgent();
    ScriptedChild tool = startTool();
    tool.ask("fill-queue");
    agent.kill();
    EXPECT_EQ(tool.ask("wait-for-loss"), "yes");
    RecordingPort next(kAgentPort);
    tool.ask("send-status");
    EXPECT_EQ(next.take(1), Messages{status(0)});
}

TEST_F(ToolFailures, EndWithAFullQueueIsOrderlyAndBounded) {
    ChildProcess agent = startDeafAgent();
    ScriptedChild tool = startTool();
    tool.ask("set-tool-icon", {"8", "1"});
    tool.ask("set-menu-icon", {"8", "2"});
    tool.ask("fill-queue");
    tool.ask("time-end");
    tool.ask("terminate");
    const long taken = std::stol(tool.answer());
    EXPECT_GE(taken, 1'500) << "three sends, each with its own time-out";
    EXPECT_LT(taken, 20'000);
    EXPECT_EQ(tool.process().waitForExit(), 0);
}

TEST_F(ToolLaunchesAgent, AnswersAtOnceWhenTheAgentIsThere) {
    RecordingPort there(kAgentPort);
    agent_.install("launchedAgent");
    // Whoever launches it says that it is not there.
    std::filesystem::remove(agent_.program());
    ScriptedChild tool = startTool();
    const auto [answer, taken] = parse(tool.ask("launch-agent"));
    EXPECT_EQ(answer, "yes");
    EXPECT_LT(taken, std::chrono::seconds(5));
    EXPECT_EQ(tool.log(), std::vector<std::string>{});
}

TEST_F(ToolLaunchesAgent, AnswersNoWhenNoneIsInstalled) {
    ScriptedChild tool = startTool();
    const auto [answer, taken] = parse(tool.ask("launch-agent"));
    EXPECT_EQ(answer, "no");
    EXPECT_EQ(tool.ask("is-connected"), "no");
    EXPECT_EQ(tool.log().size(), 1u);
    EXPECT_EQ(tool.countInLog("The agent cannot be launched: "), 1u);
}

TEST_F(ToolLaunchesAgent, StartsAnInstalledOneAndWaitsForItsPort) {
    agent_.install("launchedAgent");
    ScriptedChild tool = startTool();
    EXPECT_EQ(parse(tool.ask("launch-agent")).first, "yes");
    EXPECT_EQ(tool.ask("is-connected"), "yes");
    EXPECT_EQ(
        RunningApplication::runningApplicationsWithBundleIdentifier("com.korvane.utilia").size(),
        1u);
    EXPECT_EQ(parse(tool.ask("launch-agent")).first, "yes");
    EXPECT_EQ(tool.log(), std::vector<std::string>{});
}

TEST_F(ToolLaunchesAgent, GivesUpAfterFiveSecondsAndHandlesMessagesMeanwhile) {
    agent_.install("launchedAgentWithoutPort");
    ScriptedChild tool = startTool();
    tool.ask("install-blocks", {"date"});
    tool.tell("launch-agent");
    waitForAgentProcess();
    sendToTool(103);
    const auto [answer, taken] = parse(tool.answer());
    EXPECT_EQ(answer, "no");
    EXPECT_GE(taken, std::chrono::milliseconds(5'000));
    EXPECT_LT(taken, std::chrono::milliseconds(15'000));
    EXPECT_EQ(tool.ask("is-connected"), "no");
    EXPECT_EQ(splitFields(tool.ask("wait-for-events", {"1"})),
              std::vector<std::string>{"date while launching"});
}

TEST_F(ToolLaunchesAgent, TakesAnAgentThatComesUpWhileItWaits) {
    agent_.install("launchedAgentWithoutPort");
    ScriptedChild tool = startTool();
    tool.tell("launch-agent");
    waitForAgentProcess();
    RecordingPort late(kAgentPort);
    EXPECT_EQ(parse(tool.answer()).first, "yes");
    tool.ask("send-status");
    EXPECT_EQ(late.take(1), Messages{status(0)});
}

}  // namespace
}  // namespace utilia::test
