// The agent's receiving end: which proxy gets which message, and what becomes of broken ones.

#include <memory>
#include <set>

#include "Common/UtiliaCommon/ToolDataProvider/ToolDataServerProvider.h"
#include "Tests/Process/AgentFixture.h"

namespace utilia::test {
namespace {

class AgentServer : public AgentTest {};

TEST_F(AgentServer, OwnsTheAgreedName) {
    ScriptedChild agent = startAgent();
    EXPECT_FALSE(RecordingPort(kAgentPort).isRegistered());
    EXPECT_TRUE(RecordingPort::send(kAgentPort, 106, {kToolPath}));
    EXPECT_EQ(agent.ask("has-permanent-tools"), "no");
}

TEST_F(AgentServer, NameThatIsTakenGoesUnnoticed) {
    RecordingPort first(kAgentPort);
    ScriptedChild agent = startAgent();
    EXPECT_EQ(agent.log(), std::vector<std::string>{});
    sendToAgent(109, {kToolPath});
    EXPECT_EQ(first.take(1), (Messages{{109, {kToolPath}}}));
}

TEST_F(AgentServer, GivesItsNameAndItsPortUpWhenItEnds) {
    auto server = std::make_unique<ToolDataServerProvider>();
    const auto port = server->servicePort();
    EXPECT_TRUE(RecordingPort::send(kAgentPort, 109, {kToolPath}));
    EXPECT_FALSE(RecordingPort(kAgentPort).isRegistered());
    server = nullptr;
    EXPECT_FALSE(port->isValid());
    EXPECT_FALSE(RecordingPort::send(kAgentPort, 109, {kToolPath}));
    EXPECT_TRUE(RecordingPort(kAgentPort).isRegistered());
}

TEST_F(AgentServer, AppliesEachMessageToItsProxy) {
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    sendToAgent(100, {kToolPath, statusBytes(2)});
    sendToAgent(101, {kToolPath, sampleTiff(16, 5)});
    sendToAgent(102, {kToolPath, sampleTiff(8, 6), "\1"});
    sendToAgent(108, {kToolPath, "12:30 \u2013 tea"});
    const std::string shown = "2, launched, 16x16 seed 5, 8x8 seed 6 template, 12:30 \u2013 tea";
    EXPECT_EQ(agent.ask("wait-for-state", {tool, shown}), shown);
    EXPECT_EQ(agent.log(), std::vector<std::string>{});
}

TEST_F(AgentServer, ToolIconWithoutImageClearsIt) {
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    agent.ask("show", {tool, "text"});
    sendToAgent(101, {kToolPath});
    EXPECT_EQ(stateAfterAll(agent, tool), "0, not launched, none, 8x8 seed 91, text");
}

TEST_F(AgentServer, MenuIconFlagIsYesForEveryByteButZero) {
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    sendToAgent(102, {kToolPath, sampleTiff(8, 6), "\xff"});
    EXPECT_EQ(stateAfterAll(agent, tool), "0, not launched, none, 8x8 seed 6 template, none");
    sendToAgent(102, {kToolPath, sampleTiff(8, 7), std::string(1, '\0')});
    EXPECT_EQ(stateAfterAll(agent, tool), "0, not launched, none, 8x8 seed 7, none");
}

TEST_F(AgentServer, MenuIconWithoutFlagIsNoTemplateWhateverTheLastOneWas) {
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    sendToAgent(102, {kToolPath, sampleTiff(8, 6), "\1"});
    sendToAgent(102, {kToolPath, sampleTiff(8, 7)});
    EXPECT_EQ(stateAfterAll(agent, tool), "0, not launched, none, 8x8 seed 7, none");
}

TEST_F(AgentServer, EmptyMenuTextIsATextAndAMissingOneChangesNothing) {
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    agent.ask("show", {tool, "before"});
    sendToAgent(108, {kToolPath});
    EXPECT_EQ(stateAfterAll(agent, tool), "0, not launched, 8x8 seed 90, 8x8 seed 91, before");
    sendToAgent(108, {kToolPath, ""});
    EXPECT_EQ(stateAfterAll(agent, tool), "0, not launched, 8x8 seed 90, 8x8 seed 91, ");
}

TEST_F(AgentServer, BytesThatAreNoPictureShowNoneAndAreLoggedOnce) {
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    agent.ask("show", {tool, "text"});
    sendToAgent(101, {kToolPath, "no picture"});
    sendToAgent(102, {kToolPath, "", "\1"});
    EXPECT_EQ(stateAfterAll(agent, tool), "0, not launched, none, none, text");
    EXPECT_EQ(agent.countInLog("The tool icon of /Applications/Sample Tool.app is not a picture"),
              1u);
    EXPECT_EQ(agent.countInLog("The menu icon of /Applications/Sample Tool.app is not a picture"),
              1u);
}

TEST_F(AgentServer, StatusTwoIsKeptThoughTheToolCannotBeReached) {
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    sendToAgent(100, {kToolPath, statusBytes(2)});
    EXPECT_EQ(stateAfterAll(agent, tool), "2, launched, none, none, none");
}

TEST_F(AgentServer, StatusOneIsKeptOnlyWhileTheToolCanBeReached) {
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    sendToAgent(100, {kToolPath, statusBytes(1)});
    EXPECT_EQ(stateAfterAll(agent, tool), "0, launched, none, none, none");
    RecordingPort port(toolPortName(kToolPath));
    sendToAgent(100, {kToolPath, statusBytes(1)});
    EXPECT_EQ(stateAfterAll(agent, tool), "1, launched, none, none, none");
    EXPECT_EQ(port.take(2), (Messages{wish(101, false), wish(102, false)}));
}

TEST_F(AgentServer, UnknownToolIsDroppedSilently) {
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    for (const char* path : {"/Applications/Other.app", "/Applications/sample tool.app",
                             "/Applications/Sample Tool.app/", "/Applications/Sample Tool", ""})
        sendToAgent(108, {path, "not for this tool"});
    EXPECT_EQ(stateAfterAll(agent, tool), kNothingShown);
    EXPECT_EQ(agent.log(), std::vector<std::string>{});
}

TEST_F(AgentServer, EquivalentSpellingOfAPathIsAnotherTool) {
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent, {"/Applications/Caf\u00e9.app", "com.korvane.utilia.Cafe"});
    sendToAgent(108, {"/Applications/Cafe\u0301.app", "decomposed"});
    EXPECT_EQ(stateAfterAll(agent, tool), kNothingShown);
    sendToAgent(108, {"/Applications/Caf\u00e9.app", "precomposed"});
    EXPECT_EQ(stateAfterAll(agent, tool), "0, not launched, none, none, precomposed");
}

TEST_F(AgentServer, CanonicalPathMatchesAsTheActualOneDoes) {
    ScriptedChild agent = startAgent();
    const std::string tool =
        add(agent, {"/Applications/Renamed.app", "com.korvane.utilia.Timer", "Timer"});
    sendToAgent(108, {"/Applications/Timer.app", "by canonical name"});
    EXPECT_EQ(stateAfterAll(agent, tool), "0, not launched, none, none, by canonical name");
    sendToAgent(108, {"/Applications/Renamed.app", "by file name"});
    EXPECT_EQ(stateAfterAll(agent, tool), "0, not launched, none, none, by file name");
    sendToAgent(108, {"/Elsewhere/Timer.app", "another folder"});
    EXPECT_EQ(stateAfterAll(agent, tool), "0, not launched, none, none, by file name");
}

TEST_F(AgentServer, EveryMatchingProxyGetsTheMessage) {
    ScriptedChild agent = startAgent();
    agent.ask("take-delegate");
    const std::string first = add(agent);
    const std::string other = add(agent, {"/Applications/Other.app", "com.korvane.utilia.Other"});
    const std::string second = add(agent);
    const std::string canonical =
        add(agent, {"/Applications/Copy.app", "com.korvane.utilia.Copy", "Sample Tool"});
    sendToAgent(108, {kToolPath, "to all"});
    EXPECT_EQ(stateAfterAll(agent, other), kNothingShown);
    for (const std::string& index : {first, second, canonical})
        EXPECT_EQ(agent.ask("state", {index}), "0, not launched, none, none, to all");
    sendToAgent(109, {kToolPath});
    stateAfterAll(agent, other);
    EXPECT_EQ(splitFields(agent.ask("events")),
              (std::vector<std::string>(3, "silentUpdateResources")));
}

TEST_F(AgentServer, ProxyThatIsListedTwiceIsToldTwice) {
    ScriptedChild agent = startAgent();
    agent.ask("take-delegate");
    const std::string tool = add(agent);
    agent.ask("list-again", {tool});
    EXPECT_EQ(splitFields(agent.ask("listed")), (std::vector<std::string>{kToolPath, kToolPath}));
    sendToAgent(109, {kToolPath});
    stateAfterAll(agent, tool);
    EXPECT_EQ(splitFields(agent.ask("events")).size(), 2u);
    agent.ask("remove", {tool});
    EXPECT_EQ(splitFields(agent.ask("listed")), std::vector<std::string>{})
        << "every occurrence goes";
}

TEST_F(AgentServer, RemovedProxyIsToldNoMore) {
    ScriptedChild agent = startAgent();
    const std::string first = add(agent);
    const std::string second = add(agent);
    agent.ask("remove", {first});
    sendToAgent(108, {kToolPath, "text"});
    EXPECT_EQ(stateAfterAll(agent, second), "0, not launched, none, none, text");
    EXPECT_EQ(agent.ask("state", {first}), kNothingShown);
}

TEST_F(AgentServer, UpdateOfResourcesOfAnUnknownToolIsNotPassedOn) {
    ScriptedChild agent = startAgent();
    agent.ask("take-delegate");
    const std::string tool = add(agent);
    sendToAgent(109, {"/Applications/Other.app"});
    stateAfterAll(agent, tool);
    EXPECT_EQ(splitFields(agent.ask("events")), std::vector<std::string>{});
}

TEST_F(AgentServer, UpdateOfResourcesWithoutDelegateIsLoggedAndSurvived) {
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    sendToAgent(109, {kToolPath});
    EXPECT_EQ(stateAfterAll(agent, tool), kNothingShown);
    EXPECT_EQ(agent.log(),
              std::vector<std::string>{"A tool asks to update resources, but this application has "
                                       "no delegate to do it."});
}

TEST_F(AgentServer, IgnoresIdentifiersOutsideTheSet) {
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    for (const std::uint32_t id : {0u, 99u, 103u, 104u, 105u, 106u, 107u, 110u, 0xffffffffu})
        sendToAgent(id, {kToolPath, statusBytes(2)});
    EXPECT_EQ(stateAfterAll(agent, tool), kNothingShown);
    EXPECT_EQ(agent.log(), std::vector<std::string>{});
}

TEST_F(AgentServer, DropsMalformedMessagesWithOneLineEachAndGoesOn) {
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    agent.ask("show", {tool, "as before"});
    const std::string asBefore = "0, not launched, 8x8 seed 90, 8x8 seed 91, as before";
    const struct {
        std::uint32_t id;
        std::vector<std::string> components;
        const char* reason;
    } cases[] = {
        {100, {}, "message 100: the tool's path is missing"},
        {109, {}, "message 109: the tool's path is missing"},
        {108, {"\xff\xfe", "text"}, "message 108: the tool's path is not UTF-8"},
        {100, {kToolPath}, "message 100: the status is missing"},
        {100, {kToolPath, ""}, "message 100: the status is not 8 bytes"},
        {100, {kToolPath, "1234567"}, "message 100: the status is not 8 bytes"},
        {100, {kToolPath, "123456789"}, "message 100: the status is not 8 bytes"},
        {102, {kToolPath}, "message 102: the image is missing"},
        {102, {kToolPath, sampleTiff(4, 1), ""}, "message 102: the template flag is not 1 byte"},
        {102, {kToolPath, sampleTiff(4, 1), "12"}, "message 102: the template flag is not 1 byte"},
        {108, {kToolPath, "\xc3"}, "message 108: the text is not UTF-8"},
    };
    std::set<std::string> known;
    for (const auto& each : cases) {
        SCOPED_TRACE(each.reason);
        agent.ask("clear-log");
        sendToAgent(each.id, each.components);
        EXPECT_EQ(stateAfterAll(agent, tool), asBefore);
        // A mistake that comes again at once is counted, not logged once more.
        const bool isNew = known.insert(each.reason).second;
        const std::string line = std::string("A message from a tool is dropped: ") + each.reason;
        EXPECT_EQ(agent.log(), isNew ? std::vector{line} : std::vector<std::string>{});
    }
}

TEST_F(AgentServer, LargeIconIsShownWhole) {
    ScriptedChild agent = startAgent();
    const std::string tool = add(agent);
    sendToAgent(101, {kToolPath, sampleTiff(1024, 3)});
    EXPECT_EQ(stateAfterAll(agent, tool), "0, not launched, 1024x1024 seed 3, none, none");
}

}  // namespace
}  // namespace utilia::test
