// What observers of a proxy are told, and what they may do while they are told.

#include "Tests/Process/AgentFixture.h"

namespace utilia::test {
namespace {

class AgentObserver : public AgentTest {
protected:
    using Lines = std::vector<std::string>;
    static Lines events(ScriptedChild& agent) { return splitFields(agent.ask("events")); }
};

TEST_F(AgentObserver, IsToldOfEachValueAfterItIsStored) {
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    agent.ask("observe", {tool});
    sendToAgent(100, {kToolPath, statusBytes(2)});
    sendToAgent(101, {kToolPath, sampleTiff(8, 1)});
    sendToAgent(102, {kToolPath, sampleTiff(4, 2), "\1"});
    sendToAgent(108, {kToolPath, "text"});
    EXPECT_EQ(splitFields(agent.ask("wait-for-events", {"5"})),
              (Lines{"status 2", "was launched", "tool icon 8x8 seed 1",
                     "menu icon 4x4 seed 2 template", "menu text text"}));
}

TEST_F(AgentObserver, IsToldOfEqualValuesToo) {
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    agent.ask("observe", {tool});
    agent.ask("set-status", {tool, "2"});
    agent.ask("set-status", {tool, "2"});
    EXPECT_EQ(events(agent), (Lines{"status 2", "status 2"}));
}

TEST_F(AgentObserver, IsToldOfWishesOnlyWhenTheyChange) {
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    agent.ask("observe", {tool});
    agent.ask("want-tool-icon", {tool, "yes"});
    agent.ask("want-tool-icon", {tool, "yes"});
    agent.ask("want-menu-icon", {tool, "no"});
    agent.ask("want-menu-icon", {tool, "yes"});
    EXPECT_EQ(events(agent), (Lines{"tool icon needed", "menu icon needed"}));
}

TEST_F(AgentObserver, IsToldWhenThePortComesAndGoes) {
    auto port = std::make_unique<RecordingPort>(toolPortName(kToolPath));
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    agent.ask("observe", {tool});
    agent.ask("set-status", {tool, "1"});
    port = nullptr;
    EXPECT_EQ(splitFields(agent.ask("wait-for-events", {"4"})),
              (Lines{"tool port", "status 1", "tool port", "status 0"}));
}

TEST_F(AgentObserver, SeveralAreToldInTheirOrder) {
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    agent.ask("observe", {tool, "first"});
    agent.ask("observe", {tool, "second"});
    agent.ask("set-status", {tool, "2"});
    EXPECT_EQ(events(agent), (Lines{"first: status 2", "second: status 2"}));
}

TEST_F(AgentObserver, IsToldNothingAfterItsEnd) {
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    const std::string handle = agent.ask("observe", {tool});
    agent.ask("end-observation", {handle});
    agent.ask("end-observation", {handle});
    agent.ask("set-status", {tool, "2"});
    EXPECT_EQ(events(agent), Lines{});
}

TEST_F(AgentObserver, MayEndItselfAndOthersWhileItIsTold) {
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    const std::string first = agent.ask("observe", {tool, "first"});
    // Ends the first, itself (index 1) and the last (index 2).
    ASSERT_EQ(agent.ask("observe-and-end", {tool, first, "1", "2"}), "1");
    ASSERT_EQ(agent.ask("observe", {tool, "last"}), "2");
    agent.ask("observe", {tool, "stays"});
    agent.ask("set-status", {tool, "2"});
    EXPECT_EQ(events(agent), (Lines{"first: status 2", "ending", "stays: status 2"}));
    agent.ask("clear-events");
    agent.ask("set-status", {tool, "2"});
    EXPECT_EQ(events(agent), Lines{"stays: status 2"});
}

TEST_F(AgentObserver, HandleMayOutliveItsProxy) {
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    const std::string handle = agent.ask("observe", {tool});
    agent.ask("remove", {tool});
    agent.ask("forget", {tool});
    agent.ask("end-observation", {handle});
    EXPECT_EQ(agent.log(), Lines{});
}

TEST_F(AgentObserver, MayRemoveAndFreeTheVeryProxyThatTellsIt) {
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    const std::string other = add(agent, {"/Applications/Other.app", "other"});
    agent.ask("observe-and-remove", {tool, tool});
    sendToAgent(100, {kToolPath, statusBytes(2)});
    sendToAgent(108, {"/Applications/Other.app", "goes on"});
    EXPECT_EQ(agent.ask("wait-for-state", {other, "0, not launched, none, none, goes on"}),
              "0, not launched, none, none, goes on");
    EXPECT_EQ(splitFields(agent.ask("listed")), Lines{"/Applications/Other.app"});
    EXPECT_EQ(events(agent), (Lines{"removing", "removing"})) << "the status, and that it launched";
}

TEST_F(AgentObserver, MayFreeItsProxyInsideEveryCall) {
    // For the calls that show what is stored.
    ScriptedChild permanent(TestBundle(home_).role("writer"));
    permanent.ask("set-permanent", {"yes"});
    permanent.ask("set-menu-text", {"stored"});
    permanent.ask("set-tool-icon", {"8", "1"});
    permanent.ask("set-menu-icon", {"8", "2"});
    permanent.terminate();
    RecordingPort port(toolPortName(kToolPath));
    ScriptedChild agent = startAgent();
    for (const char* call : {"set-status", "request-status", "ensure-port", "want-tool-icon",
                             "want-menu-icon", "set-permanent-icons"}) {
        SCOPED_TRACE(call);
        agent.ask("clear-events");
        const std::string tool = add(agent);
        agent.ask("observe-and-remove", {tool, tool});
        agent.ask("call", {tool, call});
        EXPECT_FALSE(events(agent).empty());
        EXPECT_EQ(splitFields(agent.ask("listed")), Lines{});
    }
}

TEST_F(AgentObserver, MayFreeItsProxyWhileThePortDies) {
    auto port = std::make_unique<RecordingPort>(toolPortName(kToolPath));
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    agent.ask("set-status", {tool, "1"});
    agent.ask("observe-and-remove", {tool, tool});
    port = nullptr;
    EXPECT_EQ(splitFields(agent.ask("wait-for-events", {"2"})), (Lines{"removing", "removing"}));
    EXPECT_EQ(splitFields(agent.ask("listed")), Lines{});
}

TEST_F(AgentObserver, RemovalOfALaterProxyStillLeavesItTheMessageUnderWay) {
    ScriptedChild agent = startAgent();
    const std::string first = add(agent);
    const std::string second = add(agent);
    agent.ask("observe", {second, "second"});
    agent.ask("observe-and-remove", {first, second});
    sendToAgent(108, {kToolPath, "text"});
    EXPECT_EQ(agent.ask("wait-for-state", {first, "0, not launched, none, none, text"}),
              "0, not launched, none, none, text");
    EXPECT_EQ(events(agent), (Lines{"removing", "second: menu text text"}));
    EXPECT_EQ(splitFields(agent.ask("listed")), Lines{kToolPath});
}

TEST_F(AgentObserver, AddedProxyGetsTheNextMessageOnly) {
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    agent.ask("observe-and-add", {tool, kToolPath, "added"});
    sendToAgent(100, {kToolPath, statusBytes(2)});
    EXPECT_EQ(agent.ask("wait-for-state", {tool, "2, launched, none, none, none"}),
              "2, launched, none, none, none");
    EXPECT_EQ(splitFields(agent.ask("listed")), (Lines{kToolPath, kToolPath, kToolPath}))
        << "one for the status, one for the launch";
    EXPECT_EQ(agent.ask("state", {"1"}), kNothingShown);
}

}  // namespace
}  // namespace utilia::test
