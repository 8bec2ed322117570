// A real agent and real tools, from end to end: whoever starts first, and whoever dies.

#include <filesystem>
#include <memory>

#include <signal.h>

#include "Common/UtiliaCommon/ToolDataProvider/ToolDataClientProvider.h"
#include "Tests/Process/AgentFixture.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/StopWithoutLocks.h"

namespace utilia::test {
namespace {

// Sends until it is killed; nothing else runs in it.
UTILIA_CHILD_ROLE(toolThatNeverStopsSending) {
    ToolDataClientProvider client;
    client.setMenuText("still here");
    client.setToolIcon(sampleImage(150, 1));
    self.say("sending");
    for (;;) {
        client.sendMenuText();
        client.sendToolIcon();
    }
}

class Channel : public AgentTest {
protected:
    ScriptedChild startClock(const std::string& role = "tool") const {
        return ScriptedChild(clock_.role(role));
    }
    std::string addClock(ScriptedChild& agent) const {
        return agent.ask("add", {clock_.path(), clock_.options().bundleIdentifier});
    }
    static void expectState(ScriptedChild& agent, const std::string& index,
                            const std::string& state) {
        EXPECT_EQ(agent.ask("wait-for-state", {index, state}), state);
    }
    static std::size_t descriptorsOf(ScriptedChild& child) {
        std::size_t count = 0;
        for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(
                 "/proc/" + std::to_string(child.process().pid()) + "/fd"))
            ++count;
        return count;
    }
    // A permanent tool that has ended once in an orderly way.
    void leaveBehind(const std::string& text) const {
        ScriptedChild tool = startClock();
        tool.ask("set-status", {"2"});
        tool.ask("set-menu-text", {text});
        tool.ask("set-tool-icon", {"8", "1"});
        tool.ask("set-menu-icon", {"4", "2", "template"});
        tool.terminate();
    }

    TestBundle clock_{home_, {.name = "Clock", .bundleIdentifier = "com.korvane.utilia.Clock"}};
};

TEST_F(Channel, ToolThatReportsItselfIsShownAndToldTheWishes) {
    ScriptedChild agent = startAgent();
    const std::string clock = addClock(agent);
    agent.ask("want-tool-icon", {clock, "yes"});
    agent.ask("want-menu-icon", {clock, "yes"});
    ScriptedChild tool = startClock();
    tool.ask("set-tool-icon", {"64", "1"});
    tool.ask("set-menu-icon", {"16", "2", "template"});
    tool.ask("set-menu-text", {"12:30"});
    tool.ask("set-status", {"1"});
    expectState(agent, clock, "1, launched, 64x64 seed 1, 16x16 seed 2 template, 12:30");
    tool.ask("set-menu-text", {"12:31"});
    tool.ask("set-menu-icon", {"16", "3"});
    expectState(agent, clock, "1, launched, 64x64 seed 1, 16x16 seed 3, 12:31");
    EXPECT_EQ(tool.log(), std::vector<std::string>{});
    EXPECT_EQ(agent.log(), std::vector<std::string>{});
}

TEST_F(Channel, AgentThatStartsLaterAsksForTheStatus) {
    ScriptedChild tool = startClock();
    tool.ask("set-menu-text", {"12:30"});
    tool.ask("set-status", {"1"});
    ScriptedChild agent = startAgent();
    const std::string clock = addClock(agent);
    agent.ask("want-menu-icon", {clock, "yes"});
    agent.ask("request-status", {clock});
    expectState(agent, clock, "1, launched, none, none, 12:30");
}

TEST_F(Channel, LargeIconArrivesWhole) {
    ScriptedChild agent = startAgent();
    const std::string clock = addClock(agent);
    agent.ask("want-tool-icon", {clock, "yes"});
    ScriptedChild tool = startClock();
    tool.ask("set-tool-icon", {"1024", "9"});
    tool.ask("set-status", {"1"});
    expectState(agent, clock, "1, launched, 1024x1024 seed 9, none, none");
}

TEST_F(Channel, CommandsReachTheToolAndTurnOffEndsIt) {
    ScriptedChild agent = startAgent();
    const std::string clock = addClock(agent);
    ScriptedChild tool = startClock();
    tool.ask("install-blocks", {"date", "click", "turn-off"});
    tool.ask("set-status", {"1"});
    expectState(agent, clock, "1, launched, none, none, none");
    EXPECT_EQ(agent.ask("send-command", {clock, "103"}), "yes");
    EXPECT_EQ(agent.ask("send-command", {clock, "107"}), "yes");
    EXPECT_EQ(splitFields(tool.ask("wait-for-events", {"2"})),
              (std::vector<std::string>{"date", "click"}));
    EXPECT_EQ(agent.ask("send-command", {clock, "105"}), "yes");
    EXPECT_EQ(tool.process().waitForExit(), 0);
    expectState(agent, clock, "0, launched, none, none, turning off");
}

TEST_F(Channel, KilledActiveToolFallsToInactive) {
    ScriptedChild agent = startAgent();
    const std::string clock = addClock(agent);
    ScriptedChild tool = startClock();
    tool.ask("set-status", {"1"});
    expectState(agent, clock, "1, launched, none, none, none");
    tool.process().kill();
    expectState(agent, clock, "0, launched, none, none, none");
}

TEST_F(Channel, KilledPermanentToolShowsWhatItsLastOrderlyEndStored) {
    leaveBehind("stored");
    ScriptedChild agent = startAgent();
    const std::string clock = addClock(agent);
    agent.ask("want-tool-icon", {clock, "yes"});
    agent.ask("want-menu-icon", {clock, "yes"});
    ScriptedChild tool = startClock();
    tool.ask("set-tool-icon", {"32", "11"});
    tool.ask("set-menu-icon", {"32", "12"});
    tool.ask("set-menu-text", {"reported"});
    tool.ask("set-status", {"2"});
    expectState(agent, clock, "2, launched, 32x32 seed 11, 32x32 seed 12, reported");
    tool.process().kill();
    expectState(agent, clock, "2, launched, 8x8 seed 1, 4x4 seed 2 template, stored");
}

TEST_F(Channel, KilledPermanentToolThatStoredNothingKeepsWhatItReported) {
    ScriptedChild agent = startAgent();
    const std::string clock = addClock(agent);
    agent.ask("want-menu-icon", {clock, "yes"});
    ScriptedChild tool = startClock();
    tool.ask("set-menu-text", {"reported"});
    tool.ask("set-menu-icon", {"32", "12"});
    tool.ask("set-status", {"2"});
    expectState(agent, clock, "2, launched, none, 32x32 seed 12, reported");
    tool.process().kill();
    EXPECT_EQ(agent.ask("wait-for-loss", {clock}), "yes");
    expectState(agent, clock, "2, launched, none, 32x32 seed 12, reported");
}

TEST_F(Channel, PersistedValuesThatAreMissingLeaveTheReportedOnes) {
    {
        ScriptedChild tool = startClock();
        tool.ask("set-status", {"2"});
        tool.ask("set-tool-icon", {"8", "1"});
        tool.terminate();
    }
    ScriptedChild agent = startAgent();
    const std::string clock = addClock(agent);
    agent.ask("show", {clock, "reported"});
    EXPECT_EQ(agent.ask("request-status", {clock}),
              "2, not launched, 8x8 seed 1, 8x8 seed 91, reported");
}

TEST_F(Channel, PermanentToolThatDoesNotRunIsShownFromWhatItStored) {
    leaveBehind("stored");
    ScriptedChild agent = startAgent();
    const std::string clock = addClock(agent);
    EXPECT_EQ(agent.ask("state", {clock}), kNothingShown) << "not before it is asked for";
    EXPECT_EQ(agent.ask("request-status", {clock}),
              "2, not launched, 8x8 seed 1, 4x4 seed 2 template, stored");
    EXPECT_EQ(agent.log(), std::vector<std::string>{});
}

TEST_F(Channel, PermanentToolThatDiesUnnoticedIsShownFromWhatItStored) {
    leaveBehind("stored");
    ChildProcess dead = ChildProcess::role("deafPort", {toolPortName(clock_.path())});
    ASSERT_EQ(dead.waitForLine(), "registered");
    ScriptedChild agent = startAgent();
    const std::string clock = addClock(agent);
    agent.ask("show", {clock, "reported"});
    ASSERT_EQ(agent.ask("ensure-port", {clock}), "yes");
    EXPECT_EQ(agent.ask("kill-and-request", {clock, std::to_string(dead.pid())}),
              "2, not launched, 8x8 seed 1, 4x4 seed 2 template, stored");
    EXPECT_EQ(agent.log(),
              std::vector<std::string>{
                  "Failed to send Command to Agent port. Exception: NSInvalidSendPortException "
                  "Reason: [NSPort sendBeforeDate:] destination port invalid"});
}

TEST_F(Channel, PersistedPresentationMayBeShownWithoutTheStatus) {
    leaveBehind("stored");
    ScriptedChild agent = startAgent();
    const std::string clock = addClock(agent);
    EXPECT_EQ(agent.ask("set-permanent-icons", {clock}),
              "0, not launched, 8x8 seed 1, 4x4 seed 2 template, stored");
}

TEST_F(Channel, PersistedDataIsFoundByTheActualFileNameAlsoOfARenamedTool) {
    const TestBundle renamed(home_, {.name = "Renamed Clock",
                                     .bundleIdentifier = "com.korvane.utilia.Clock",
                                     .canonicalName = "Canonical Clock"});
    {
        ScriptedChild tool(renamed.role("tool"));
        tool.ask("set-status", {"2"});
        tool.ask("set-menu-text", {"stored"});
        tool.terminate();
    }
    ScriptedChild agent = startAgent();
    const std::string clock =
        add(agent, {renamed.path(), "com.korvane.utilia.Clock", "Canonical Clock"});
    EXPECT_EQ(agent.ask("request-status", {clock}), "2, not launched, none, none, stored");
    ScriptedChild tool(renamed.role("tool"));
    tool.ask("set-status", {"1"});
    expectState(agent, clock, "1, launched, none, none, stored");
}

TEST_F(Channel, ToolThatEndsInOrderIsShownAsItEnded) {
    ScriptedChild agent = startAgent();
    const std::string clock = addClock(agent);
    ScriptedChild tool = startClock();
    tool.ask("set-status", {"2"});
    tool.ask("set-menu-text", {"last words"});
    tool.ask("set-menu-icon", {"16", "3", "template"});
    tool.ask("set-tool-icon", {"300", "4"});
    tool.terminate();
    expectState(agent, clock, "2, launched, 300x300 seed 4, 16x16 seed 3 template, last words");
}

TEST_F(Channel, StartedAgainItIsActiveAgain) {
    ScriptedChild agent = startAgent();
    const std::string clock = addClock(agent);
    agent.ask("want-menu-icon", {clock, "yes"});
    for (const char* text : {"first", "second", "third"}) {
        ScriptedChild tool = startClock();
        tool.ask("set-menu-text", {text});
        tool.ask("set-status", {"1"});
        expectState(agent, clock, std::string("1, launched, none, none, ") + text);
        tool.process().kill();
        expectState(agent, clock, std::string("0, launched, none, none, ") + text);
    }
}

TEST_F(Channel, KilledAgentIsReplacedAndToolsFindTheNextOne) {
    auto agent = std::make_unique<ScriptedChild>(startAgent());
    addClock(*agent);
    ScriptedChild tool = startClock();
    tool.ask("set-menu-text", {"12:30"});
    tool.ask("set-status", {"1"});
    agent->process().kill();
    EXPECT_EQ(tool.ask("wait-for-loss"), "yes");
    tool.ask("set-status", {"1"});
    agent = std::make_unique<ScriptedChild>(startAgent());
    const std::string clock = addClock(*agent);
    agent->ask("want-menu-icon", {clock, "yes"});
    tool.ask("set-status", {"1"});
    expectState(*agent, clock, "1, launched, none, none, 12:30");
    EXPECT_EQ(tool.log(), std::vector<std::string>{});
}

TEST_F(Channel, AgentCallsOnToolsThatRanBeforeIt) {
    ScriptedChild tool = startClock();
    tool.ask("set-menu-text", {"12:30"});
    for (int i = 0; i < 3; ++i) {
        ScriptedChild agent = startAgent();
        const std::string clock = addClock(agent);
        agent.ask("want-menu-icon", {clock, "yes"});
        agent.ask("request-status", {clock});
        expectState(agent, clock, "0, launched, none, none, 12:30");
        agent.process().kill();
        EXPECT_EQ(tool.ask("wait-for-loss"), "yes");
    }
}

TEST_F(Channel, LastWordsToAStoppedAgentAreHeardWhenItGoesOn) {
    ScriptedChild agent = startAgent();
    const std::string clock = addClock(agent);
    ScriptedChild tool = startClock();
    tool.ask("send-status");
    expectState(agent, clock, "0, launched, none, none, none");
    test::stopWithoutLocks(agent.process().pid(), home_.path());
    tool.ask("set-menu-text", {"last words"});
    tool.ask("set-tool-icon", {"400", "4"});
    tool.terminate();
    agent.process().signal(SIGCONT);
    expectState(agent, clock, "0, launched, 400x400 seed 4, none, last words");
}

TEST_F(Channel, StoppedToolHoldsNobodyUp) {
    ScriptedChild agent = startAgent();
    const std::string clock = addClock(agent);
    const TestBundle timerBundle(home_,
                                 {.name = "Timer", .bundleIdentifier = "com.korvane.utilia.Timer"});
    const std::string timer = add(agent, {timerBundle.path(), "com.korvane.utilia.Timer"});
    ScriptedChild stopped = startClock();
    stopped.ask("set-status", {"1"});
    expectState(agent, clock, "1, launched, none, none, none");
    test::stopWithoutLocks(stopped.process().pid(), home_.path());
    EXPECT_EQ(agent.ask("send-command", {clock, "107"}), "yes") << "queued is sent";
    ScriptedChild tool(timerBundle.role("tool"));
    tool.ask("set-status", {"1"});
    expectState(agent, timer, "1, launched, none, none, none");
    EXPECT_EQ(agent.ask("state", {clock}), "1, launched, none, none, none");
    stopped.process().signal(SIGCONT);
    stopped.process().kill();
    expectState(agent, clock, "0, launched, none, none, none");
}

TEST_F(Channel, CopiesOfOneToolShareAPortAndAreShownApart) {
    const TestBundle first(home_,
                           {.name = "Timer", .bundleIdentifier = "id", .canonicalName = "Timer"});
    const TestBundle copy(
        home_, {.name = "Timer copy", .bundleIdentifier = "id", .canonicalName = "Timer"});
    ScriptedChild agent = startAgent();
    const std::string proxy = add(agent, {first.path(), "id", "Timer"});
    const std::string proxyOfCopy = add(agent, {copy.path(), "id", "Timer"});
    agent.ask("want-menu-icon", {proxyOfCopy, "yes"});
    ScriptedChild tool(first.role("tool"));
    ScriptedChild second(copy.role("tool"));
    second.ask("set-menu-text", {"of the copy"});
    second.ask("set-status", {"1"});
    expectState(agent, proxyOfCopy, "1, launched, none, none, none");
    EXPECT_EQ(tool.ask("wait-for-wishes", {"no yes"}), "no yes") << "the first hears the wishes";
    EXPECT_EQ(second.ask("wishes"), "no no");
    tool.ask("set-menu-text", {"of the first"});
    expectState(agent, proxy, "0, not launched, none, none, of the first");
    EXPECT_EQ(agent.ask("state", {proxyOfCopy}), "1, launched, none, none, of the first")
        << "the first's path is the canonical path of both";
}

TEST_F(Channel, NonAsciiPathsWorkInBothDirections) {
    const TestBundle bundle(home_, {.name = "\u6642\u8a08 \U0001f570 Ch\u00e2teau",
                                    .bundleIdentifier = "com.korvane.utilia.Unicode"});
    ScriptedChild agent = startAgent();
    const std::string index = add(agent, {bundle.path(), "com.korvane.utilia.Unicode"});
    agent.ask("want-menu-icon", {index, "yes"});
    ScriptedChild tool(bundle.role("tool"));
    tool.ask("set-menu-text", {"\u65e5\u672c\u8a9e"});
    tool.ask("set-status", {"1"});
    expectState(agent, index, "1, launched, none, none, \u65e5\u672c\u8a9e");
    tool.ask("set-status", {"2"});
    tool.terminate();
    EXPECT_EQ(agent.ask("wait-for-loss", {index}), "yes");
    EXPECT_EQ(agent.ask("request-status", {index}), "2, launched, none, none, \u65e5\u672c\u8a9e");
}

TEST_F(Channel, UpdateOfResourcesReachesTheAgentsDelegate) {
    ScriptedChild agent = startAgent();
    agent.ask("take-delegate");
    addClock(agent);
    ScriptedChild tool = startClock();
    tool.ask("update-resources");
    EXPECT_EQ(splitFields(agent.ask("wait-for-events", {"1"})),
              std::vector<std::string>{"silentUpdateResources"});
}

TEST_F(Channel, ToolsKilledWhileTheySendCostTheAgentNothing) {
    ScriptedChild agent = startAgent();
    const std::string clock = addClock(agent);
    const auto sendAndKill = [&] {
        ChildProcess tool = clock_.role("toolThatNeverStopsSending");
        ASSERT_EQ(tool.waitForLine(), "sending");
        agent.ask("wait-for-state", {clock, "0, not launched, 150x150 seed 1, none, still here"});
        tool.kill();
    };
    sendAndKill();
    agent.ask("set-status", {clock, "0"});
    const std::size_t before = descriptorsOf(agent);
    for (int i = 0; i < 40; ++i) sendAndKill();
    ScriptedChild tool = startClock();
    tool.ask("set-menu-text", {"served as before"});
    tool.ask("send-menu-text");
    expectState(agent, clock, "0, not launched, 150x150 seed 1, none, served as before");
    tool.process().kill();
    EXPECT_TRUE(eventually([&] { return descriptorsOf(agent) <= before; }))
        << descriptorsOf(agent) << " descriptors, " << before << " before";
    EXPECT_EQ(agent.log(), std::vector<std::string>{});
}

TEST_F(Channel, AgentsKilledWhileAToolSendsCostTheToolNothing) {
    ScriptedChild tool = startClock();
    tool.ask("set-tool-icon", {"150", "1"});
    std::size_t before = 0;
    for (int i = 0; i < 20; ++i) {
        ScriptedChild agent = startAgent();
        const std::string clock = addClock(agent);
        agent.ask("want-tool-icon", {clock, "yes"});
        agent.ask("ensure-port", {clock});
        ASSERT_EQ(tool.ask("wait-for-wishes", {"yes no"}), "yes no");
        agent.process().kill();
        tool.ask("send-tool-icon");
        EXPECT_EQ(tool.ask("wait-for-loss"), "yes");
        if (i == 0) before = descriptorsOf(tool);
    }
    EXPECT_TRUE(eventually([&] { return descriptorsOf(tool) <= before; }));
}

}  // namespace
}  // namespace utilia::test
