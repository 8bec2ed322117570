// The agent's stand-in for a tool: look-up, wishes, commands, and what it shows when the tool is
// gone.

#include <chrono>
#include <memory>

#include <gmock/gmock.h>

#include "Tests/Process/AgentFixture.h"

namespace utilia::test {
namespace {

class AgentProxy : public AgentTest {
protected:
    static std::string deadSend() {
        return "Failed to send Command to Agent port. Exception: NSInvalidSendPortException "
               "Reason: [NSPort sendBeforeDate:] destination port invalid";
    }

    // A process that holds the tool's name and does not read.
    static ChildProcess startDeafTool() {
        ChildProcess tool = ChildProcess::role("deafPort", {toolPortName(kToolPath)});
        EXPECT_EQ(tool.waitForLine(), "registered");
        return tool;
    }
};

TEST_F(AgentProxy, KnowsWhatItWasSetUpWith) {
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent, {"/Applications/My Clock.app", "com.korvane.utilia.Clock"});
    EXPECT_EQ(splitFields(agent.ask("describe", {tool})),
              (std::vector<std::string>{"/Applications/My Clock.app", "com.korvane.utilia.Clock",
                                        "none", "My Clock.app", "com.korvane.utilia.Clock"}));
    EXPECT_EQ(agent.ask("state", {tool}), kNothingShown);
    EXPECT_EQ(agent.ask("has-port", {tool}), "no");
    const std::string named = add(agent, {"/Applications/Copy.app", "id", "Clock"});
    EXPECT_EQ(splitFields(agent.ask("describe", {named})),
              (std::vector<std::string>{"/Applications/Copy.app", "id", "Clock", "Copy.app", "id"}))
        << "persisted data goes by the actual file name";
}

TEST_F(AgentProxy, SlashAtTheEndOfItsPathIsNoPartOfIt) {
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent, {"/Applications/My Clock.app/", "id"});
    EXPECT_EQ(splitFields(agent.ask("describe", {tool})),
              (std::vector<std::string>{"/Applications/My Clock.app", "id", "none", "My Clock.app",
                                        "id"}));
}

TEST_F(AgentProxy, ListsProxiesInTheOrderOfTheirSetUp) {
    ScriptedChild agent = startAgent();
    add(agent, {"/b.app", "b"});
    add(agent, {"/a.app", "a"});
    add(agent, {"/c.app", "c"});
    EXPECT_EQ(splitFields(agent.ask("listed")),
              (std::vector<std::string>{"/b.app", "/a.app", "/c.app"}));
}

TEST_F(AgentProxy, SetUpSendsNothingAndLooksForNothing) {
    RecordingPort port(toolPortName(kToolPath));
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    EXPECT_EQ(agent.ask("has-port", {tool}), "no");
    agent.ask("ensure-port", {tool});
    EXPECT_EQ(port.take(2), (Messages{wish(101, false), wish(102, false)}));
}

TEST_F(AgentProxy, TellsANewlyFoundPortBothWishesAtOnce) {
    RecordingPort port(toolPortName(kToolPath));
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    EXPECT_EQ(agent.ask("ensure-port", {tool}), "yes");
    EXPECT_EQ(agent.ask("ensure-port", {tool}), "yes");
    agent.ask("send-command", {tool, "103"});
    EXPECT_EQ(port.take(3), (Messages{wish(101, false), wish(102, false), {103, {}}}));
}

TEST_F(AgentProxy, FirstCommandFollowsTheWishes) {
    RecordingPort port(toolPortName(kToolPath));
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    EXPECT_EQ(agent.ask("send-command", {tool, "105"}), "yes");
    EXPECT_EQ(port.take(3), (Messages{wish(101, false), wish(102, false), {105, {}}}));
}

TEST_F(AgentProxy, CommandCarriesItsParametersAsOneComponent) {
    RecordingPort port(toolPortName(kToolPath));
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    agent.ask("ensure-port", {tool});
    agent.ask("send-command", {tool, "107"});
    agent.ask("send-command", {tool, "103", "some data"});
    agent.ask("send-command", {tool, "103", ""});
    agent.ask("send-command", {tool, "4711", "x"});
    EXPECT_EQ(port.take(6), (Messages{wish(101, false),
                                      wish(102, false),
                                      {107, {}},
                                      {103, {"some data"}},
                                      {103, {""}},
                                      {4711, {"x"}}}));
}

TEST_F(AgentProxy, ChangedWishIsSentAndAnEqualOneIsNot) {
    RecordingPort port(toolPortName(kToolPath));
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    agent.ask("ensure-port", {tool});
    for (const char* wanted : {"no", "yes", "yes", "no", "no"})
        agent.ask("want-tool-icon", {tool, wanted});
    for (const char* wanted : {"yes", "yes", "no"}) agent.ask("want-menu-icon", {tool, wanted});
    agent.ask("send-command", {tool, "107"});
    EXPECT_EQ(port.take(7), (Messages{wish(101, false),
                                      wish(102, false),
                                      wish(101, true),
                                      wish(101, false),
                                      wish(102, true),
                                      wish(102, false),
                                      {107, {}}}));
}

TEST_F(AgentProxy, WishThatFindsThePortIsToldWithTheOtherAndOnceMore) {
    RecordingPort port(toolPortName(kToolPath));
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    agent.ask("want-menu-icon", {tool, "yes"});
    EXPECT_EQ(port.take(3), (Messages{wish(101, false), wish(102, true), wish(102, true)}));
}

TEST_F(AgentProxy, WishOfAToolThatIsNotRunningIsToldWhenItIs) {
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    agent.ask("want-tool-icon", {tool, "yes"});
    agent.ask("want-menu-icon", {tool, "yes"});
    EXPECT_EQ(agent.log(), std::vector<std::string>{});
    RecordingPort port(toolPortName(kToolPath));
    agent.ask("request-status", {tool});
    EXPECT_EQ(port.take(3), (Messages{wish(101, true), wish(102, true), {100, {}}}));
}

TEST_F(AgentProxy, CanonicalNameLeadsToThePortOfTheCanonicalPath) {
    RecordingPort canonical(toolPortName("/Applications/Timer.app"));
    RecordingPort actual(toolPortName("/Applications/Renamed.app"));
    ScriptedChild agent = startAgent();
    const std::string tool =
        add(agent, {"/Applications/Renamed.app", "com.korvane.utilia.Timer", "Timer"});
    agent.ask("send-command", {tool, "107"});
    EXPECT_EQ(canonical.take(3), (Messages{wish(101, false), wish(102, false), {107, {}}}));
    const std::string plain = add(agent, {"/Applications/Renamed.app", "id"});
    agent.ask("send-command", {plain, "103"});
    EXPECT_EQ(actual.take(3), (Messages{wish(101, false), wish(102, false), {103, {}}}));
}

TEST_F(AgentProxy, NonAsciiPathsAreHashedAsTheyStand) {
    const std::string path = "/Applications/\u00dcn\u00efc\u00f6d\u00e9.app";
    RecordingPort port("7QK2M9ZD4R.com.korvane.utilia.tool.d2d5e22a3ae760ac");
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent, {path, "id"});
    EXPECT_EQ(agent.ask("ensure-port", {tool}), "yes");
}

TEST_F(AgentProxy, NothingIsSentToAToolThatIsNotRunning) {
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    EXPECT_EQ(agent.ask("ensure-port", {tool}), "no");
    EXPECT_EQ(agent.ask("send-command", {tool, "105"}), "no");
    EXPECT_EQ(agent.log(), std::vector<std::string>{});
}

TEST_F(AgentProxy, StatusOneNeedsAPortAndOthersDoNot) {
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    EXPECT_EQ(agent.ask("set-status", {tool, "1"}), "0");
    EXPECT_EQ(agent.ask("set-status", {tool, "2"}), "2");
    EXPECT_EQ(agent.ask("set-status", {tool, "7"}), "7");
    EXPECT_EQ(agent.ask("set-status", {tool, "18446744073709551615"}), "18446744073709551615");
    EXPECT_EQ(agent.ask("set-status", {tool, "0"}), "0");
    RecordingPort port(toolPortName(kToolPath));
    EXPECT_EQ(agent.ask("set-status", {tool, "1"}), "1");
}

TEST_F(AgentProxy, EveryStatusLooksForThePortFirst) {
    ScriptedChild agent = startAgent();
    for (const char* status : {"0", "1", "2", "7"}) {
        SCOPED_TRACE(status);
        const std::string path = std::string("/Applications/Tool ") + status + ".app";
        RecordingPort port(toolPortName(path));
        const std::string tool = add(agent, {path, "id"});
        agent.ask("set-status", {tool, status});
        EXPECT_EQ(agent.ask("has-port", {tool}), "yes");
        EXPECT_EQ(port.take(2), (Messages{wish(101, false), wish(102, false)}));
    }
}

TEST_F(AgentProxy, PortIsFoundBeforeTheStatusChanges) {
    RecordingPort port(toolPortName(kToolPath));
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    agent.ask("observe", {tool});
    agent.ask("set-status", {tool, "1"});
    EXPECT_EQ(splitFields(agent.ask("events")),
              (std::vector<std::string>{"tool port", "status 1"}));
}

TEST_F(AgentProxy, ActiveToolBecomesInactiveWhenItsPortDies) {
    auto port = std::make_unique<RecordingPort>(toolPortName(kToolPath));
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    agent.ask("set-status", {tool, "1"});
    agent.ask("show", {tool, "as reported"});
    port = nullptr;
    const std::string inactive = "0, not launched, 8x8 seed 90, 8x8 seed 91, as reported";
    EXPECT_EQ(agent.ask("wait-for-state", {tool, inactive}), inactive);
    EXPECT_EQ(agent.ask("has-port", {tool}), "no");
    EXPECT_EQ(agent.log(), std::vector<std::string>{});
}

TEST_F(AgentProxy, OtherStatusesOutliveThePort) {
    ScriptedChild agent = startAgent();
    for (const char* status : {"0", "2", "7"}) {
        SCOPED_TRACE(status);
        auto port = std::make_unique<RecordingPort>(toolPortName(kToolPath));
        const std::string tool = add(agent);
        agent.ask("set-status", {tool, status});
        agent.ask("show", {tool, "as reported"});
        port = nullptr;
        EXPECT_EQ(agent.ask("wait-for-loss", {tool}), "yes");
        EXPECT_EQ(agent.ask("state", {tool}), std::string(status) + ", not launched, 8x8 seed 90, "
                                                                    "8x8 seed 91, as reported");
        agent.ask("remove", {tool});
    }
}

TEST_F(AgentProxy, ToolThatIsStartedAgainIsFoundAndToldTheWishes) {
    auto port = std::make_unique<RecordingPort>(toolPortName(kToolPath));
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    agent.ask("want-tool-icon", {tool, "yes"});
    agent.ask("set-status", {tool, "1"});
    port = nullptr;
    EXPECT_EQ(agent.ask("wait-for-loss", {tool}), "yes");
    port = std::make_unique<RecordingPort>(toolPortName(kToolPath));
    sendToAgent(100, {kToolPath, statusBytes(1)});
    EXPECT_EQ(port->take(2), (Messages{wish(101, true), wish(102, false)}));
    EXPECT_EQ(agent.ask("wait-for-state", {tool, "1, launched, none, none, none"}),
              "1, launched, none, none, none");
}

TEST_F(AgentProxy, CommandToADeadToolIsLoggedAndAnsweredNo) {
    ChildProcess dead = startDeafTool();
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    agent.ask("set-status", {tool, "1"});
    EXPECT_EQ(agent.ask("kill-and-command", {tool, std::to_string(dead.pid())}), "no");
    EXPECT_EQ(agent.log(), std::vector<std::string>{deadSend()});
    EXPECT_EQ(agent.ask("wait-for-loss", {tool}), "yes");
    EXPECT_EQ(agent.ask("state", {tool}), kNothingShown);
    EXPECT_EQ(agent.ask("send-command", {tool, "107"}), "no");
    EXPECT_EQ(agent.log().size(), 1u);
}

TEST_F(AgentProxy, StatusRequestToADeadToolThatIsNotPermanentChangesNothing) {
    ChildProcess dead = startDeafTool();
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    agent.ask("set-status", {tool, "1"});
    EXPECT_EQ(agent.ask("kill-and-request", {tool, std::to_string(dead.pid())}),
              "1, not launched, none, none, none");
    EXPECT_EQ(agent.log(), std::vector<std::string>{deadSend()});
    EXPECT_EQ(agent.ask("wait-for-state", {tool, kNothingShown}), kNothingShown);
}

TEST_F(AgentProxy, ActiveStatusIsKeptUntilTheEndOfAHeldPortIsNoticed) {
    ChildProcess dead = startDeafTool();
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    agent.ask("ensure-port", {tool});
    EXPECT_EQ(agent.ask("kill-and-set-status", {tool, std::to_string(dead.pid()), "1"}),
              "1, not launched, none, none, none");
    EXPECT_EQ(agent.ask("wait-for-state", {tool, kNothingShown}), kNothingShown);
    EXPECT_EQ(agent.ask("has-port", {tool}), "no");
}

TEST_F(AgentProxy, StatusRequestWithoutToolAndPersistedDataChangesNothing) {
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    agent.ask("show", {tool, "text"});
    EXPECT_EQ(agent.ask("request-status", {tool}),
              "0, not launched, 8x8 seed 90, 8x8 seed 91, text");
}

TEST_F(AgentProxy, CommandToAToolThatDoesNotReadCostsItsTimeoutOnce) {
    ChildProcess deaf = startDeafTool();
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    const long taken = std::stol(agent.ask("fill-queue", {tool}));
    EXPECT_GE(taken, 10'000);
    EXPECT_LT(taken, 19'000);  // two would take twenty seconds
    EXPECT_EQ(agent.log(),
              std::vector<std::string>{
                  "Failed to send Command to Agent port. Exception: "
                  "NSPortTimeoutException Reason: [NSPort sendBeforeDate:] timed out"});
    EXPECT_EQ(agent.ask("has-port", {tool}), "yes") << "the port is kept until its end is known";
}

// ---- without waiting

// Far less than what one call waits for a tool without room, far more than what a call costs.
constexpr long kAtOnce = 5'000;  // milliseconds
constexpr int kMoreThanAToolHasRoomFor = 600;

TEST_F(AgentProxy, KeepsCommandsInOrderForAToolThatDoesNotReadYet) {
    RecordingPort deaf(toolPortName(kToolPath));  // reads in take() only
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    agent.ask("never-wait", {tool});
    const int count = kMoreThanAToolHasRoomFor;
    const std::string taken = agent.ask("send-numbered", {tool, std::to_string(count)});
    ASSERT_NE(taken, "no");
    EXPECT_LT(std::stol(taken), kAtOnce);
    EXPECT_EQ(agent.ask("is-keeping", {tool}), "yes");
    Messages expected{wish(101, false), wish(102, false)};
    for (int i = 0; i < count; ++i) expected.push_back({107, {std::to_string(i)}});
    EXPECT_EQ(agent.ask("send-command", {tool, "104"}), "yes");
    expected.push_back({104, {}});
    EXPECT_EQ(deaf.take(expected.size()), expected);
    EXPECT_EQ(agent.ask("wait-for-sent-late-end", {"107 104 "}), "107 104 ");
    EXPECT_EQ(agent.ask("is-keeping", {tool}), "no");
    EXPECT_EQ(agent.ask("send-command", {tool, "103"}), "yes");
    EXPECT_EQ(deaf.take(1), (Messages{{103, {}}})) << "nothing is kept any more";
    EXPECT_EQ(agent.log(), std::vector<std::string>{});
}

TEST_F(AgentProxy, TellsWhatItKeptInVainAfterTheTimeOut) {
    ChildProcess deaf = startDeafTool();
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    agent.ask("never-wait", {tool});
    // One after the other, until one of another kind is surely kept.
    ASSERT_NE(agent.ask("send-numbered", {tool, std::to_string(kMoreThanAToolHasRoomFor)}), "no");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(agent.ask("send-command", {tool, "105"}), "yes");
    EXPECT_EQ(agent.ask("wait-for-undelivered-end", {"105 "}), "105 ");
    const auto taken = std::chrono::steady_clock::now() - start;
    EXPECT_GE(taken, std::chrono::milliseconds(9'900)) << "as long as a call waits";
    EXPECT_THAT(agent.log(),
                testing::AllOf(testing::Not(testing::IsEmpty()),
                               testing::Each("Failed to send Command to Agent port. Exception: "
                                             "NSPortTimeoutException Reason: [NSPort "
                                             "sendBeforeDate:] timed out")));
    EXPECT_EQ(agent.ask("has-port", {tool}), "yes");
}

TEST_F(AgentProxy, TellsWhatItKeptForAToolThatEnds) {
    ChildProcess deaf = startDeafTool();
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    agent.ask("never-wait", {tool});
    ASSERT_NE(agent.ask("send-numbered", {tool, std::to_string(kMoreThanAToolHasRoomFor)}), "no");
    EXPECT_EQ(agent.ask("send-command", {tool, "105"}), "yes");
    deaf.kill();
    EXPECT_EQ(agent.ask("wait-for-undelivered-end", {"105 "}), "105 ");
    EXPECT_EQ(agent.ask("send-command", {tool, "107"}), "no") << "there is no tool";
}

TEST_F(AgentProxy, RefusesMoreThanIsSensiblyKept) {
    ChildProcess deaf = startDeafTool();
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    agent.ask("never-wait", {tool});
    EXPECT_EQ(agent.ask("send-numbered", {tool, "5000"}), "no");
    EXPECT_EQ(agent.log().size(), 1u);
}

}  // namespace
}  // namespace utilia::test
