// What a tool does on the agent's commands, and what it says while it ends.

#include <signal.h>

#include "Common/UtiliaCommon/PersistentData/ToolPersistentDataReader.h"
#include "Tests/Process/ToolFixture.h"

namespace utilia::test {
namespace {

using ToolCommands = ToolTest;
using ToolEnd = ToolTest;

constexpr std::uint32_t kMarker = 4000;

TEST_F(ToolCommands, DateScheduleCallsItsBlock) {
    ScriptedChild tool = startTool();
    tool.ask("install-blocks", {"date"});
    sendToTool(103);
    sendToTool(103, {"ignored"});
    EXPECT_EQ(splitFields(tool.ask("wait-for-events", {"2"})),
              (std::vector<std::string>{"date", "date"}));
}

TEST_F(ToolCommands, DateScheduleWithoutBlockIsNoEvent) {
    RecordingPort agent(kAgentPort);
    ScriptedChild tool = startTool();
    sendToTool(103);
    sendToTool(100);
    EXPECT_EQ(agent.take(1), Messages{status(0)});
    EXPECT_EQ(tool.log(), std::vector<std::string>{});
}

TEST_F(ToolCommands, ClickCallsItsBlockAndNothingElse) {
    ScriptedChild tool = startTool();
    tool.ask("take-delegate", {"yes"});
    tool.ask("install-blocks", {"click"});
    sendToTool(107);
    tool.ask("wait-for-events", {"1"});
    tool.ask("remove-blocks");
    sendToTool(107);
    EXPECT_EQ(splitFields(tool.ask("wait-for-events", {"3"})),
              (std::vector<std::string>{"click", "reopen with windows", "activate"}));
}

TEST_F(ToolCommands, ClickWithoutBlockActsAsReopen) {
    ScriptedChild tool = startTool();
    tool.ask("take-delegate", {"no"});
    sendToTool(107);
    EXPECT_EQ(splitFields(tool.ask("wait-for-events", {"2"})),
              (std::vector<std::string>{"reopen without windows", "activate"}));
}

TEST_F(ToolCommands, ClickWithoutBlockAndDelegateIsNoFailure) {
    RecordingPort agent(kAgentPort);
    ScriptedChild tool = startTool();
    sendToTool(107);
    sendToTool(100);
    EXPECT_EQ(agent.take(1), Messages{status(0)});
}

TEST_F(ToolCommands, BlocksMayBeInstalledByAnotherThread) {
    ScriptedChild tool = startTool();
    EXPECT_EQ(tool.ask("blocks"), "no no no");
    tool.ask("install-blocks-elsewhere", {"date", "turn-off", "click"});
    EXPECT_EQ(tool.ask("blocks"), "yes yes yes");
    sendToTool(107);
    sendToTool(103);
    EXPECT_EQ(splitFields(tool.ask("wait-for-events", {"2"})),
              (std::vector<std::string>{"click", "date"}));
    tool.ask("remove-blocks");
    EXPECT_EQ(tool.ask("blocks"), "no no no");
}

TEST_F(ToolCommands, TurnOffCallsItsBlockBeforeTheApplicationTerminates) {
    RecordingPort agent(kAgentPort);
    ScriptedChild tool = startTool();
    tool.ask("install-blocks", {"turn-off"});
    sendToTool(105);
    EXPECT_EQ(tool.process().waitForExit(), 0);
    EXPECT_EQ(agent.take(3), (Messages{updateResources(), noToolIcon(), menuText("turning off")}));
}

TEST_F(ToolCommands, TurnOffTerminatesWithoutBlockToo) {
    RecordingPort agent(kAgentPort);
    ScriptedChild tool = startTool();
    sendToTool(105);
    EXPECT_EQ(tool.process().waitForExit(), 0);
    EXPECT_EQ(agent.take(1), Messages{noToolIcon()});
}

TEST_F(ToolEnd, SendsIconMenuIconAndTextThoughNobodyAskedAndTheProcessIsGone) {
    RecordingPort agent(kAgentPort);
    ScriptedChild tool = startTool();
    tool.ask("set-menu-text", {"last words"});
    tool.ask("set-menu-icon", {"8", "2", "template"});
    tool.ask("set-tool-icon", {"300", "1"});
    tool.terminate();
    EXPECT_EQ(agent.messages(), Messages{}) << "nothing is read before the tool is gone";
    EXPECT_EQ(agent.take(3),
              (Messages{toolIcon(300, 1), menuIcon(8, 2, true), menuText("last words")}));
}

TEST_F(ToolEnd, SkipsMenuIconAndTextThatAreNotSet) {
    RecordingPort agent(kAgentPort);
    {
        ScriptedChild tool = startTool();
        tool.terminate();
    }
    {
        ScriptedChild tool = startTool();
        tool.ask("set-menu-text", {""});
        tool.terminate();
    }
    EXPECT_EQ(agent.take(3), (Messages{noToolIcon(), noToolIcon(), menuText("")}));
}

TEST_F(ToolEnd, SendsAgainWhatTheAgentHasAlready) {
    RecordingPort agent(kAgentPort);
    ScriptedChild tool = startTool();
    sendToTool(101, {flagByte(true)});
    ASSERT_EQ(tool.ask("wait-for-wishes", {"yes no"}), "yes no");
    tool.ask("set-tool-icon", {"8", "1"});
    tool.terminate();
    EXPECT_EQ(agent.take(3), (Messages{noToolIcon(), toolIcon(8, 1), toolIcon(8, 1)}));
}

TEST_F(ToolEnd, IsSilentWithoutAgent) {
    ScriptedChild tool = startTool();
    tool.ask("set-menu-text", {"nobody hears it"});
    tool.terminate();
}

TEST_F(ToolEnd, KeepsItsDataBeforeItSends) {
    RecordingPort agent(kAgentPort);
    ScriptedChild tool = startTool({"marker", "unlaunched"});
    tool.ask("finish-launching");
    tool.ask("set-menu-text", {"text"});
    tool.ask("set-status", {"2"});
    ASSERT_EQ(agent.take(1), Messages{status(2)});
    tool.terminate();
    EXPECT_EQ(agent.take(3), (Messages{{kMarker, {"yes"}}, noToolIcon(), menuText("text")}));
}

TEST_F(ToolEnd, SendsNothingWhenItEndsBeforeItHasFinishedLaunching) {
    RecordingPort agent(kAgentPort);
    ScriptedChild tool = startTool({"marker", "unlaunched"});
    tool.ask("set-menu-text", {"text"});
    tool.terminate();
    EXPECT_EQ(agent.take(1), (Messages{{kMarker, {"no"}}}));
    ScriptedChild next = startTool();
    next.ask("send-status");
    EXPECT_EQ(agent.take(1), Messages{status(0)}) << "nothing was left between the two";
}

TEST_F(ToolEnd, OnSignalsTooIsOrderly) {
    RecordingPort agent(kAgentPort);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        ScriptedChild tool = startTool();
        tool.ask("set-menu-text", {"by signal"});
        tool.process().signal(signal);
        EXPECT_EQ(tool.process().waitForExit(), 0);
        EXPECT_EQ(agent.take(2), (Messages{noToolIcon(), menuText("by signal")}));
    }
}

TEST_F(ToolEnd, ToolThatWasPermanentStartsAsSuchAndSaysSoOnlyWhenAsked) {
    {
        ScriptedChild tool = startTool();
        tool.ask("set-menu-text", {"stored \u2013 text"});
        tool.ask("set-menu-icon", {"8", "2"});
        tool.ask("set-status", {"2"});
        tool.terminate();
    }
    RecordingPort agent(kAgentPort);
    ScriptedChild tool = startTool();
    EXPECT_EQ(tool.ask("status"), "2");
    EXPECT_EQ(tool.ask("menu-text"), "stored \u2013 text");
    EXPECT_EQ(tool.ask("icons"), "none, none") << "stored icons are not loaded";
    EXPECT_EQ(tool.ask("is-connected"), "no");
    EXPECT_EQ(sentSoFar(tool, agent), Messages{});
    sendToTool(100);
    sendToTool(102, {flagByte(true)});
    EXPECT_EQ(agent.take(2), (Messages{status(2), menuText("stored \u2013 text")}));
}

TEST_F(ToolEnd, ToolThatWasNotPermanentStartsInactiveWithoutText) {
    {
        ScriptedChild tool = startTool();
        tool.ask("set-menu-text", {"gone"});
        tool.ask("set-status", {"1"});
        tool.terminate();
    }
    ScriptedChild tool = startTool();
    EXPECT_EQ(tool.ask("status"), "0");
    EXPECT_EQ(tool.ask("menu-text"), "none");
}

}  // namespace
}  // namespace utilia::test
