// A tool's side of the channel while nothing goes wrong: names, wishes, setters, senders.

#include <filesystem>

#include <sys/stat.h>

#include "Common/Foundation/StringHash.h"
#include "Tests/Process/ToolFixture.h"
#include "Tests/Process/UnprivilegedUser.h"

namespace utilia::test {
namespace {

using ToolClient = ToolTest;

TEST_F(ToolClient, IsKnownByThePathOfItsBundle) {
    ScriptedChild tool = startTool();
    EXPECT_EQ(tool.ask("tool-id"), bundle_.path());
    EXPECT_EQ(tool.ask("port-name"),
              "7QK2M9ZD4R.com.korvane.utilia.tool." + hexadecimal(stringHash(bundle_.path())));
    EXPECT_TRUE(RecordingPort::send(tool.ask("port-name"), 106, {}));
}

TEST_F(ToolClient, CanonicalNameReplacesTheFileNameInThePortsName) {
    TestBundle renamed(home_, {.name = "My Renamed Copy",
                               .bundleIdentifier = "com.korvane.utilia.Timer",
                               .canonicalName = "Timer"});
    ScriptedChild tool(renamed.role("tool"));
    const std::string canonical = (home_.path() / "Applications/Timer.app").string();
    EXPECT_EQ(tool.ask("port-name"),
              "7QK2M9ZD4R.com.korvane.utilia.tool." + hexadecimal(stringHash(canonical)));
    EXPECT_EQ(tool.ask("tool-id"), renamed.path()) << "the identity is the actual path";
}

TEST_F(ToolClient, SymbolicLinkToItsBundleDoesNotChangeItsName) {
    const auto link = home_.path() / "link";
    std::filesystem::create_directory_symlink(home_.path() / "Applications", link);
    ChildProcessOptions options;
    options.program = (link / "Sample Tool.app/Contents/Linux/tool").string();
    ScriptedChild tool(ChildProcess::role("tool", {}, options));
    EXPECT_EQ(tool.ask("tool-id"), bundle_.path());
}

TEST_F(ToolClient, HashOfAnotherBundleTakesItsCanonicalNameButTheMainBundlesPath) {
    const TestBundle other(home_, {.name = "Other",
                                   .bundleIdentifier = "com.korvane.utilia.Other",
                                   .canonicalName = "Canonical Other",
                                   .folder = home_.path() / "Elsewhere"});
    ScriptedChild tool = startTool();
    const std::string path = (home_.path() / "Applications/Canonical Other.app").string();
    EXPECT_EQ(tool.ask("hash-from-other-bundle", {other.path()}), std::to_string(stringHash(path)));
}

TEST_F(ToolClient, NonAsciiPathIsSentAndHashedAsItStands) {
    const TestBundle unicode(home_, {.name = "\u65e5\u672c\u8a9e \U0001f3ac Caf\u00e9",
                                     .bundleIdentifier = "com.korvane.utilia.Unicode"});
    RecordingPort agent(kAgentPort);
    ScriptedChild tool(unicode.role("tool"));
    EXPECT_EQ(tool.ask("port-name"),
              "7QK2M9ZD4R.com.korvane.utilia.tool." + hexadecimal(stringHash(unicode.path())));
    tool.ask("set-status", {"1"});
    EXPECT_EQ(agent.take(1), (Messages{{100, {unicode.path(), statusBytes(1)}}}));
}

TEST_F(ToolClient, StartsUnconnectedWithoutWishesAndInactive) {
    RecordingPort agent(kAgentPort);
    ScriptedChild tool = startTool();
    EXPECT_EQ(tool.ask("is-connected"), "no");
    EXPECT_EQ(tool.ask("wishes"), "no no");
    EXPECT_EQ(tool.ask("status"), "0");
    EXPECT_EQ(tool.ask("menu-text"), "none");
    EXPECT_EQ(tool.ask("icons"), "none, none");
    EXPECT_EQ(sentSoFar(tool, agent), Messages{}) << "nothing is sent unasked";
}

TEST_F(ToolClient, IsSilentWithoutAgent) {
    ScriptedChild tool = startTool();
    EXPECT_EQ(tool.ask("check-agent-port"), "no");
    tool.ask("set-tool-icon", {"8", "1"});
    tool.ask("set-menu-icon", {"8", "2"});
    tool.ask("set-menu-text", {"text"});
    tool.ask("set-status", {"1"});
    for (const char* send :
         {"send-tool-icon", "send-menu-icon", "send-menu-text", "send-status", "update-resources"})
        tool.ask(send);
    EXPECT_EQ(tool.ask("is-connected"), "no");
    EXPECT_EQ(tool.log(), std::vector<std::string>{});
}

TEST_F(ToolClient, ConnectsWithItsFirstSend) {
    ScriptedChild tool = startTool();
    RecordingPort agent(kAgentPort);
    EXPECT_EQ(tool.ask("is-connected"), "no");
    tool.ask("send-status");
    EXPECT_EQ(tool.ask("is-connected"), "yes");
    EXPECT_EQ(tool.ask("check-agent-port"), "yes");
    EXPECT_EQ(agent.take(1), Messages{status(0)});
}

TEST_F(ToolClient, SendsTheIdentityThatItIsGiven) {
    RecordingPort agent(kAgentPort);
    ScriptedChild tool = startTool();
    tool.ask("set-tool-id", {"/other/Tool.app"});
    EXPECT_EQ(tool.ask("tool-id"), "/other/Tool.app");
    tool.ask("send-status");
    EXPECT_EQ(agent.take(1), (Messages{{100, {"/other/Tool.app", statusBytes(0)}}}));
}

TEST_F(ToolClient, OnlyKeepsThePortsAndNamesThatItIsGiven) {
    RecordingPort agent(kAgentPort);
    RecordingPort other("com.example.other");
    ScriptedChild tool = startTool();
    tool.ask("set-agent-port", {"com.example.other"});
    EXPECT_EQ(tool.ask("is-connected"), "no");
    tool.ask("set-is-connected", {"yes"});
    EXPECT_EQ(tool.ask("is-connected"), "yes");
    tool.ask("send-status");
    EXPECT_EQ(other.take(1), Messages{status(0)});
    tool.ask("set-agent-port");
    tool.ask("send-status");
    EXPECT_EQ(agent.take(1), Messages{status(0)});

    tool.ask("set-port-name", {"com.example.name"});
    EXPECT_EQ(tool.ask("port-name"), "com.example.name");
    EXPECT_FALSE(RecordingPort::send("com.example.name", 100, {}));
    tool.ask("set-service-port", {"new"});
    EXPECT_FALSE(RecordingPort::send(toolPortOf(bundle_), 100, {})) << "its port is gone";
    tool.ask("set-service-port");
    tool.ask("end-client");
    EXPECT_EQ(tool.log(), std::vector<std::string>{});
}

TEST_F(ToolClient, SendersProduceTheAgreedBytes) {
    RecordingPort agent(kAgentPort);
    ScriptedChild tool = startTool();
    tool.ask("send-tool-icon");
    tool.ask("set-tool-icon", {"16", "7"});
    tool.ask("set-menu-icon", {"8", "9", "template"});
    tool.ask("set-menu-text", {"12:30 \u2013 tea\n"});
    tool.ask("send-tool-icon");
    tool.ask("send-menu-icon");
    tool.ask("send-menu-text");
    tool.ask("set-menu-icon", {"8", "9"});
    tool.ask("send-menu-icon");
    tool.ask("set-menu-text", {""});
    tool.ask("send-menu-text");
    tool.ask("send-status");
    tool.ask("update-resources");
    EXPECT_EQ(agent.take(8), (Messages{noToolIcon(), toolIcon(16, 7), menuIcon(8, 9, true),
                                       menuText("12:30 \u2013 tea\n"), menuIcon(8, 9, false),
                                       menuText(""), status(0), updateResources()}));
    EXPECT_EQ(tool.log(), std::vector<std::string>{});
}

TEST_F(ToolClient, MenuIconAndTextThatAreNotSetAreNotSent) {
    RecordingPort agent(kAgentPort);
    ScriptedChild tool = startTool();
    tool.ask("send-menu-icon");
    tool.ask("send-menu-text");
    EXPECT_EQ(tool.ask("is-connected"), "no") << "they are tested before the agent is looked for";
    EXPECT_EQ(sentSoFar(tool, agent), Messages{});
}

TEST_F(ToolClient, LargeIconArrivesWhole) {
    RecordingPort agent(kAgentPort);
    ScriptedChild tool = startTool();
    tool.ask("set-tool-icon", {"600", "5"});
    tool.ask("send-tool-icon");
    const Messages arrived = agent.take(1);
    ASSERT_EQ(arrived.size(), 1u);
    ASSERT_EQ(arrived[0].components.size(), 2u);
    EXPECT_GT(arrived[0].components[1].size(), std::size_t{1} << 20);
    EXPECT_TRUE(arrived[0] == toolIcon(600, 5));
}

TEST_F(ToolClient, StatusIsSentWithEverySetting) {
    RecordingPort agent(kAgentPort);
    ScriptedChild tool = startTool();
    for (const char* value : {"1", "1", "2", "0", "7"}) tool.ask("set-status", {value});
    EXPECT_EQ(agent.take(5), (Messages{status(1), status(1), status(2), status(0), status(7)}));
    tool.ask("set-status", {"18446744073709551615"});
    EXPECT_EQ(agent.take(1), (Messages{{100, {bundle_.path(), std::string(8, '\xff')}}}));
}

TEST_F(ToolClient, OnlyStatusTwoMakesTheToolPermanent) {
    ScriptedChild tool = startTool();
    const auto isPermanent = [&](const char* status) {
        tool.ask("set-status", {status});
        return tool.ask("kept").substr(0, 3);
    };
    EXPECT_EQ(isPermanent("2"), "yes");
    EXPECT_EQ(isPermanent("1"), "no,");
    EXPECT_EQ(isPermanent("3"), "no,");
    EXPECT_EQ(isPermanent("2"), "yes");
    EXPECT_EQ(isPermanent("0"), "no,");
}

TEST_F(ToolClient, UnwantedValuesAreOnlyKept) {
    RecordingPort agent(kAgentPort);
    ScriptedChild tool = startTool();
    tool.ask("set-tool-icon", {"8", "1"});
    tool.ask("set-menu-icon", {"4", "2", "template"});
    tool.ask("set-menu-text", {"kept"});
    EXPECT_EQ(tool.ask("icons"), "8x8 seed 1, 4x4 seed 2 template");
    EXPECT_EQ(tool.ask("menu-text"), "kept");
    EXPECT_EQ(tool.ask("kept"), "no, kept, 8x8 seed 1, 4x4 seed 2 template");
    EXPECT_EQ(sentSoFar(tool, agent), Messages{});
}

TEST_F(ToolClient, WantedValuesAreSentWhenTheyAreSet) {
    RecordingPort agent(kAgentPort);
    ScriptedChild tool = startTool();
    sendToTool(101, {flagByte(true)});
    sendToTool(102, {flagByte(true)});
    EXPECT_EQ(tool.ask("wait-for-wishes", {"yes yes"}), "yes yes");
    EXPECT_EQ(sentSoFar(tool, agent), Messages{noToolIcon()})
        << "a menu icon and text that are not set do not answer";
    tool.ask("set-menu-text", {"one"});
    tool.ask("set-menu-icon", {"4", "2", "template"});
    tool.ask("set-tool-icon", {"8", "1"});
    tool.ask("set-tool-icon");
    tool.ask("set-menu-icon");
    tool.ask("set-menu-text");
    EXPECT_EQ(sentSoFar(tool, agent),
              (Messages{menuText("one"), menuIcon(4, 2, true), toolIcon(8, 1), noToolIcon()}));
}

TEST_F(ToolClient, WishForTheIconIsNoWishForTheMenu) {
    RecordingPort agent(kAgentPort);
    ScriptedChild tool = startTool();
    sendToTool(101, {flagByte(true)});
    ASSERT_EQ(tool.ask("wait-for-wishes", {"yes no"}), "yes no");
    tool.ask("set-menu-text", {"only kept"});
    tool.ask("set-menu-icon", {"4", "2"});
    EXPECT_EQ(sentSoFar(tool, agent), Messages{noToolIcon()});
}

TEST_F(ToolClient, WishForTheMenuIsAnsweredWithIconThenText) {
    RecordingPort agent(kAgentPort);
    ScriptedChild tool = startTool();
    tool.ask("set-menu-text", {"text"});
    tool.ask("set-menu-icon", {"4", "2"});
    tool.ask("set-tool-icon", {"8", "1"});
    sendToTool(102, {flagByte(true)});
    ASSERT_EQ(tool.ask("wait-for-wishes", {"no yes"}), "no yes");
    EXPECT_EQ(sentSoFar(tool, agent), (Messages{menuIcon(4, 2, false), menuText("text")}));
    tool.ask("set-tool-icon", {"8", "3"});
    tool.ask("set-menu-text", {"next"});
    EXPECT_EQ(sentSoFar(tool, agent), Messages{menuText("next")});
}

TEST_F(ToolClient, WishCanBeTakenBack) {
    RecordingPort agent(kAgentPort);
    ScriptedChild tool = startTool();
    sendToTool(101, {"\xff"});
    sendToTool(102, {"\x80"});
    ASSERT_EQ(tool.ask("wait-for-wishes", {"yes yes"}), "yes yes");
    sendToTool(101, {flagByte(false)});
    sendToTool(102, {flagByte(false)});
    ASSERT_EQ(tool.ask("wait-for-wishes", {"no no"}), "no no");
    EXPECT_EQ(sentSoFar(tool, agent), Messages{noToolIcon()});
    tool.ask("set-tool-icon", {"8", "1"});
    tool.ask("set-menu-icon", {"8", "1"});
    tool.ask("set-menu-text", {"text"});
    EXPECT_EQ(sentSoFar(tool, agent), Messages{});
}

TEST_F(ToolClient, WishWithoutFlagIsAnsweredAsBefore) {
    RecordingPort agent(kAgentPort);
    ScriptedChild tool = startTool();
    tool.ask("set-menu-text", {"text"});
    sendToTool(101);
    sendToTool(102);
    sendToTool(100);
    EXPECT_EQ(agent.take(1), Messages{status(0)}) << "no earlier wish, nothing but the status";
    EXPECT_EQ(tool.ask("wishes"), "no no");
    sendToTool(101, {flagByte(true)});
    sendToTool(102, {flagByte(true)});
    sendToTool(101);
    sendToTool(102);
    sendToTool(100);
    EXPECT_EQ(agent.take(5), (Messages{noToolIcon(), menuText("text"), noToolIcon(),
                                       menuText("text"), status(0)}));
    EXPECT_EQ(tool.ask("wishes"), "yes yes");
}

TEST_F(ToolClient, AnswersTheStatusRequestWithWhatItHas) {
    RecordingPort agent(kAgentPort);
    ScriptedChild tool = startTool();
    sendToTool(100);
    EXPECT_EQ(agent.take(1), Messages{status(0)});
    tool.ask("set-status", {"1"});
    sendToTool(100, {"ignored"});
    EXPECT_EQ(agent.take(2), (Messages{status(1), status(1)}));
}

TEST_F(ToolClient, IgnoresIdentifiersOutsideTheSet) {
    RecordingPort agent(kAgentPort);
    ScriptedChild tool = startTool();
    for (const std::uint32_t id : {0u, 99u, 104u, 106u, 108u, 109u, 110u, 0xffffffffu})
        sendToTool(id, {flagByte(true)});
    sendToTool(100);
    EXPECT_EQ(agent.take(1), Messages{status(0)});
    EXPECT_EQ(tool.ask("wishes"), "no no");
    EXPECT_EQ(tool.log(), std::vector<std::string>{});
}

TEST_F(ToolClient, DropsMalformedWishesWithOneLineEachAndGoesOn) {
    RecordingPort agent(kAgentPort);
    ScriptedChild tool = startTool();
    sendToTool(101, {flagByte(true)});
    sendToTool(101, {""});
    sendToTool(102, {"\1\1"});
    sendToTool(100);
    EXPECT_EQ(agent.take(2), (Messages{noToolIcon(), status(0)}));
    EXPECT_EQ(tool.ask("wishes"), "yes no");
    EXPECT_EQ(tool.log(),
              (std::vector<std::string>{
                  "A message from the agent is dropped: message 101: the flag is not 1 byte",
                  "A message from the agent is dropped: message 102: the flag is not 1 byte"}));
}

TEST_F(ToolClient, UpdateOfResourcesIsLoggedOnlyWithExtendedLogging) {
    RecordingPort agent(kAgentPort);
    ScriptedChild tool = startTool();
    tool.ask("update-resources");
    EXPECT_EQ(tool.log(), std::vector<std::string>{});
    tool.ask("extended-logging");
    tool.ask("update-resources");
    EXPECT_EQ(tool.log(), std::vector<std::string>{"Push Agent to update resources"});
    EXPECT_EQ(agent.take(2), (Messages{updateResources(), updateResources()}));
}

TEST_F(ToolClient, ExtendedLoggingSaysNothingWithoutAgent) {
    ScriptedChild tool = startTool();
    tool.ask("extended-logging");
    tool.ask("update-resources");
    EXPECT_EQ(tool.log(), std::vector<std::string>{});
}

TEST_F(ToolClient, LettingTheAgentGoIsUndoneByTheNextSend) {
    RecordingPort agent(kAgentPort);
    ScriptedChild tool = startTool();
    tool.ask("send-status");
    tool.ask("unsubscribe");
    EXPECT_EQ(tool.ask("is-connected"), "no");
    tool.ask("unsubscribe");
    tool.ask("send-status");
    EXPECT_EQ(tool.ask("is-connected"), "yes");
    EXPECT_EQ(agent.take(2), (Messages{status(0), status(0)}));
}

TEST_F(ToolClient, FindsARestartedAgentWithTheNextSend) {
    auto agent = std::make_unique<RecordingPort>(kAgentPort);
    ScriptedChild tool = startTool();
    tool.ask("set-status", {"1"});
    ASSERT_EQ(agent->take(1), Messages{status(1)});
    agent = nullptr;
    EXPECT_EQ(tool.ask("wait-for-loss"), "yes");
    tool.ask("send-status");
    EXPECT_EQ(tool.ask("is-connected"), "no");
    agent = std::make_unique<RecordingPort>(kAgentPort);
    ASSERT_TRUE(agent->isRegistered());
    tool.ask("send-status");
    EXPECT_EQ(agent->take(1), Messages{status(1)});
    EXPECT_EQ(tool.log(), std::vector<std::string>{});
}

TEST_F(ToolClient, KeepsItsWishesWhenTheAgentIsLost) {
    auto agent = std::make_unique<RecordingPort>(kAgentPort);
    ScriptedChild tool = startTool();
    sendToTool(102, {flagByte(true)});
    ASSERT_EQ(tool.ask("wait-for-wishes", {"no yes"}), "no yes");
    tool.ask("send-status");
    agent = nullptr;
    EXPECT_EQ(tool.ask("wait-for-loss"), "yes");
    EXPECT_EQ(tool.ask("wishes"), "no yes");
}

TEST_F(ToolClient, GivesItsNameUpWhenItEnds) {
    ScriptedChild tool = startTool();
    const std::string name = tool.ask("port-name");
    EXPECT_TRUE(RecordingPort::send(name, 106, {}));
    tool.ask("end-client");
    EXPECT_FALSE(RecordingPort::send(name, 106, {}));
    EXPECT_TRUE(RecordingPort(name).isRegistered());
}

TEST_F(ToolClient, LetsTheAgentsPortGoAndSaysNothingMoreWhenItEnds) {
    RecordingPort agent(kAgentPort);
    ScriptedChild tool = startTool();
    tool.ask("set-tool-icon", {"8", "1"});
    tool.ask("set-menu-icon", {"8", "2"});
    tool.ask("set-menu-text", {"text"});
    tool.ask("set-status", {"2"});
    EXPECT_EQ(agent.take(1), Messages{status(2)});
    EXPECT_EQ(tool.ask("end-client-and-look"), "agent's port let go, own port given up");
    tool.ask("post-will-terminate");
    tool.ask("send-marker-only");
    EXPECT_EQ(agent.take(1), (Messages{{4000, {}}})) << "nothing came before it";
    EXPECT_FALSE(std::filesystem::exists(home_.groupContainer() / "Library/Preferences"))
        << "nor was anything stored";
}

TEST_F(ToolClient, SecondCopyWithTheSameCanonicalNameStartsUnnoticedAndHearsNothing) {
    const TestBundle first(home_, {.name = "Timer",
                                   .bundleIdentifier = "com.korvane.utilia.Timer",
                                   .canonicalName = "Timer"});
    const TestBundle second(home_, {.name = "Timer copy",
                                    .bundleIdentifier = "com.korvane.utilia.Timer",
                                    .canonicalName = "Timer"});
    RecordingPort agent(kAgentPort);
    ScriptedChild firstTool(first.role("tool"));
    ScriptedChild secondTool(second.role("tool"));
    EXPECT_EQ(firstTool.ask("port-name"), secondTool.ask("port-name"));
    ASSERT_TRUE(RecordingPort::send(firstTool.ask("port-name"), 101, {flagByte(true)}));
    EXPECT_EQ(firstTool.ask("wait-for-wishes", {"yes no"}), "yes no");
    EXPECT_EQ(secondTool.ask("wishes"), "no no");
    secondTool.ask("send-status");
    EXPECT_EQ(agent.take(2),
              (Messages{{101, {first.path()}}, {100, {second.path(), statusBytes(0)}}}));
    EXPECT_EQ(secondTool.log(), std::vector<std::string>{});
}

TEST_F(ToolClient, AnswersWritableFoldersOnly) {
    ScriptedChild tool = startTool();
    const std::string folder = home_.path().string();
    EXPECT_EQ(tool.ask("access", {folder}), folder + ", " + folder);
    EXPECT_EQ(tool.ask("access", {"/nowhere/at/all"}), "none, none");
}

TEST_F(ToolClient, FolderThatTheUserMayNotWriteIsRefused) {
    const UnprivilegedUser user(home_);
    const auto folder = home_.path() / "read-only";
    std::filesystem::create_directory(folder);
    user.own(folder);
    ASSERT_EQ(chmod(folder.c_str(), 0500), 0);
    ChildProcessOptions options;
    options.user = user.id();
    ScriptedChild tool(bundle_.role("tool", {}, options));
    EXPECT_EQ(tool.ask("access", {folder.string()}), "none, none");
    ASSERT_EQ(chmod(folder.c_str(), 0700), 0);
    EXPECT_EQ(tool.ask("access", {folder.string()}), folder.string() + ", " + folder.string());
}

TEST_F(ToolClient, SpecialDirectoryIsTheDesktop) {
    ScriptedChild tool = startTool();
    EXPECT_EQ(tool.ask("desktop"), (home_.path() / "Desktop").string());
}

TEST_F(ToolClient, AnyOtherSpecialDirectoryAborts) {
    ChildProcess tool = bundle_.role("toolThatAsksForAnUnknownDirectory");
    const auto line = tool.waitForLine();
    ASSERT_TRUE(line);
    EXPECT_NE(line->find("directory == ToolDesktopDirectory"), std::string::npos) << *line;
    EXPECT_NE(line->find("-[ToolDataClientProvider getToolSpecialDirectory:]"), std::string::npos);
    EXPECT_NE(line->find("ToolDataProvider/ToolDataClientProvider"), std::string::npos);
    EXPECT_EQ(tool.waitForExit(), 128 + 6);
}

}  // namespace
}  // namespace utilia::test
