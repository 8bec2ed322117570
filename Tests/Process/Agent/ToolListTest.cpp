#include "Applications/Agent/Model/ToolList.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Common/Platform/UserDefaults.h"
#include "Common/UtiliaCommon/LoginItems/UtiliaToolLauncher.h"
#include "Common/UtiliaCommon/PersistentData/ToolPersistentDataReader.h"
#include "Common/UtiliaCommon/Scheduler/AgentScheduler.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"
#include "Tests/Process/SampleImage.h"
#include "Tests/Support/ChildScript.h"
#include "Tests/Support/PrivateMounts.h"
#include "Tests/Support/RecordingPort.h"
#include "Tests/Support/ReportPipe.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"

// The agent's list in a process of its own; the tools are bundles of the test, and the test speaks for them.

namespace utilia::agent {
namespace {

using test::RecordedMessage;
using test::RecordingPort;
using test::ScriptedChild;
using test::TemporaryHome;
using test::TestBundle;
using testing::HasSubstr;

namespace fs = std::filesystem;

constexpr const char* kTimer = "com.korvane.utilia.Timer";
constexpr const char* kClock = "com.korvane.utilia.WorldClock";
constexpr std::chrono::milliseconds kGather{20};  // of the agent's

UTILIA_CHILD_ROLE(launchedTool) {
    test::ReportPipe::report(self.arguments.at(0), "launched");
    return 0;
}

class ToolListTest : public testing::Test {
protected:
    ScriptedChild startAgent(const test::PrivateMounts* mounts = nullptr) {
        ScriptedChild agent(
            agent_.role("toolListAgent", {std::to_string(kGather.count())}, {.mounts = mounts}));
        agent.ask("reload");
        return agent;
    }
    static std::string portOf(const TestBundle& tool) {
        return toolPortName(canonicalToolPath(tool.path(), tool.options().canonicalName));
    }
    static void speak(const TestBundle& tool, std::uint32_t id, std::vector<std::string> parts) {
        parts.insert(parts.begin(), tool.path());
        ASSERT_TRUE(RecordingPort::send(kAgentPortName, id, parts));
    }
    static void sayStatus(const TestBundle& tool, char status) {
        speak(tool, 100, {std::string(1, status) + std::string(7, '\0')});
    }
    void install(const TestBundle& tool) { tool.install("launchedTool", {reports_.path()}); }
    // That the list comes to hold the tool like this.
    static void expectEntry(ScriptedChild& agent, const char* tool, const std::string& entry) {
        ASSERT_EQ(agent.ask("wait-for", {tool, entry}), entry);
    }

    TemporaryHome home_;
    test::ReportPipe reports_{home_.path()};
    TestBundle agent_{home_, {.name = "Utilia", .bundleIdentifier = "com.korvane.utilia"}};
    TestBundle timer_{home_, {.name = "Timer", .bundleIdentifier = kTimer}};
    TestBundle clock_{home_, {.name = "Clock Pro", .bundleIdentifier = kClock}};
};

TEST_F(ToolListTest, HoldsTheInstalledToolsOfTheCatalogueByName) {
    const TestBundle foreign(home_, {.name = "Foreign", .bundleIdentifier = "com.example.Foreign"});
    install(timer_);
    install(clock_);
    install(foreign);
    auto agent = startAgent();
    EXPECT_EQ(agent.ask("entries"), "Clock Pro, ready, off, 0, , none, none; "
                                    "Timer, ready, off, 0, , none, none; ");
    EXPECT_EQ(agent.ask("changes"), "[list WorldClock Timer]");
    agent.ask("reload");
    EXPECT_EQ(agent.ask("changes"), "") << "nothing has changed";
}

TEST_F(ToolListTest, CallsAToolAsItsBundleDoes) {
    Dictionary info;
    info.set("CFBundleName", "Egg Timer");
    const TestBundle named(home_, {.name = "Renamed", .bundleIdentifier = kTimer, .info = info});
    install(named);
    EXPECT_EQ(startAgent().ask("entry", {kTimer}), "Egg Timer, ready, off, 0, , none, none");
}

TEST_F(ToolListTest, FollowsWhatAToolSays) {
    install(timer_);
    auto agent = startAgent();
    agent.ask("changes");
    const RecordingPort tool(portOf(timer_));
    sayStatus(timer_, 1);
    speak(timer_, 101, {test::sampleTiff(8, 3)});
    speak(timer_, 102, {test::sampleTiff(4, 5), "\1"});
    speak(timer_, 108, {"0:42"});
    expectEntry(agent, kTimer, "Timer, ready, runs, 1, 0:42, 8x8 seed 3, 4x4 seed 5 template");
    EXPECT_THAT(agent.ask("changes"), testing::StartsWith("[ Timer]"));
    // All of it again: nothing that a user could see.
    sayStatus(timer_, 1);
    speak(timer_, 108, {"0:42"});
    speak(timer_, 108, {"0:43"});
    expectEntry(agent, kTimer, "Timer, ready, runs, 1, 0:43, 8x8 seed 3, 4x4 seed 5 template");
    EXPECT_EQ(agent.ask("changes"), "[ Timer]");
}

TEST_F(ToolListTest, GathersAThousandChanges) {
    install(timer_);
    install(clock_);
    auto agent = startAgent();
    const RecordingPort tool(portOf(timer_));
    agent.ask("changes");
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 500; ++i) {
        speak(timer_, 108, {std::to_string(i)});
        speak(clock_, 108, {std::to_string(i)});
    }
    expectEntry(agent, kClock, "Clock Pro, ready, off, 0, 499, none, none");
    expectEntry(agent, kTimer, "Timer, ready, runs, 0, 499, none, none");
    const std::string changes = agent.ask("changes");
    const auto taken = std::chrono::steady_clock::now() - begin;
    const auto count = std::count(changes.begin(), changes.end(), '[');
    EXPECT_GT(count, 0);
    // However long it took to say all that: once in the time in which changes are gathered.
    EXPECT_LE(count, taken / kGather + 1) << changes;
}

TEST_F(ToolListTest, NoticesTheEndOfATool) {
    install(timer_);
    auto agent = startAgent();
    {
        const RecordingPort tool(portOf(timer_));
        sayStatus(timer_, 1);
        expectEntry(agent, kTimer, "Timer, ready, runs, 1, , none, none");
    }
    expectEntry(agent, kTimer, "Timer, ready, off, 0, , none, none");
}

TEST_F(ToolListTest, TellsOfAToolThatCameBackBeforeItsEndWasToldOf) {
    install(timer_);
    auto agent = startAgent();
    auto tool = std::make_unique<RecordingPort>(portOf(timer_));
    speak(timer_, 108, {"0:42"});
    const std::string shown = "Timer, ready, runs, 0, 0:42, none, none";
    EXPECT_EQ(agent.ask("wait-for", {kTimer, shown}), shown);
    agent.ask("changes");
    agent.process().signal(SIGSTOP);
    tool.reset();
    tool = std::make_unique<RecordingPort>(portOf(timer_));
    speak(timer_, 108, {"0:42"});
    agent.process().signal(SIGCONT);
    ASSERT_TRUE(tool->waitForMessages(2)) << "the wishes, to the new one";
    EXPECT_EQ(agent.ask("wait-for-changes"), "[ Timer]");
    EXPECT_EQ(agent.ask("entry", {kTimer}), shown);
}

TEST_F(ToolListTest, TellsADeafToolForWhichNoMoreIsKeptFromOneThatHasEnded) {
    install(timer_);
    auto agent = startAgent();
    EXPECT_EQ(agent.ask("deaf", {kTimer}), "no") << "it does not run";
    // It reads only while its test waits for its messages.
    auto tool = std::make_unique<RecordingPort>(portOf(timer_));
    sayStatus(timer_, 1);
    agent.ask("wait-for", {kTimer, "Timer, ready, runs, 1, , none, none"});
    EXPECT_EQ(agent.ask("deaf", {kTimer}), "no") << "it has room";
    EXPECT_EQ(agent.ask("tell-until-refused", {kTimer}), "no room");
    EXPECT_EQ(agent.ask("deaf", {kTimer}), "yes");
    tool.reset();
    agent.ask("wait-for", {kTimer, "Timer, ready, off, 0, , none, none"});
    EXPECT_EQ(agent.ask("tell-until-refused", {kTimer}), "no");
    EXPECT_EQ(agent.ask("deaf", {kTimer}), "no");
}

TEST_F(ToolListTest, ShowsAPermanentToolThatDoesNotRunAsItLeftOff) {
    install(timer_);
    {
        const Dictionary record{{"Permanent", true}, {"MenuText", "3:00"}};
        accessAppGroupPlist([&](platform::UserDefaults& suite) {
            suite.setObject(Dictionary{{std::string(kTimer) + "_Timer.app", record}},
                            kToolPersistentDataKey);
        });
        const auto icon = ToolPersistentDataReader("Timer.app", kTimer).getToolIconPath();
        std::ofstream(icon.value()) << test::sampleTiff(8, 7);
    }
    EXPECT_EQ(startAgent().ask("entry", {kTimer}), "Timer, ready, off, 2, 3:00, 8x8 seed 7, none");
}

TEST_F(ToolListTest, StartsAToolThatDoesNotRunAndTellsOneThatDoesOfTheClick) {
    install(timer_);
    auto agent = startAgent();
    EXPECT_EQ(agent.ask("activate", {kTimer}), "done");
    EXPECT_EQ(reports_.waitForLine(), "launched");

    RecordingPort tool(portOf(timer_));
    sayStatus(timer_, 1);
    expectEntry(agent, kTimer, "Timer, ready, runs, 1, , none, none");
    ASSERT_TRUE(tool.waitForMessages(2));  // the wishes
    tool.clear();
    // Whoever started it now would not find it.
    fs::remove(timer_.program());
    agent.ask("clear-log");
    // The call waits for nothing, but the test's loop has to be served for the message.
    EXPECT_EQ(agent.ask("activate", {kTimer}), "done");
    EXPECT_EQ(tool.take(1), (std::vector<RecordedMessage>{{107, {}}}));
    EXPECT_EQ(agent.ask("turn-off", {kTimer}), "done");
    EXPECT_EQ(tool.take(1), (std::vector<RecordedMessage>{{105, {}}}));
    EXPECT_EQ(agent.ask("log"), "") << "it was not started again";
}

TEST_F(ToolListTest, SaysWhatCannotBeDone) {
    install(timer_);
    auto agent = startAgent();
    EXPECT_THAT(agent.ask("activate", {"com.example.Nothing"}), HasSubstr("is not in the list"));
    EXPECT_THAT(agent.ask("turn-off", {kTimer}), HasSubstr("does not run"));
}

TEST_F(ToolListTest, SeesThatAToolRunsWhoseOnlyWordCameRightBeforeAReload) {
    install(timer_);
    auto agent = startAgent();
    const RecordingPort tool(portOf(timer_));
    speak(timer_, 108, {"0:42"});
    EXPECT_EQ(agent.ask("wait-for-text-and-reload", {"0:42"}), "said");
    EXPECT_EQ(agent.ask("entry", {kTimer}), "Timer, ready, runs, 0, 0:42, none, none");
}

TEST_F(ToolListTest, ShowsRestrictedToolsAndNeverSpeaksToThem) {
    const test::PrivateMounts mounts;
    mounts.writeSettings(R"({"WhiteToolsList": ["worldclock"]})");
    install(timer_);
    install(clock_);
    RecordingPort tool(portOf(timer_));
    auto agent = startAgent(&mounts);
    EXPECT_EQ(agent.ask("entries"), "Clock Pro, ready, off, 0, , none, none; "
                                    "Timer, restricted, off, 0, , none, none; ");
    // Whoever started it now would not find it.
    const fs::path aside = home_.path() / "aside";
    fs::rename(timer_.program(), aside);
    agent.ask("clear-log");
    EXPECT_THAT(agent.ask("activate", {kTimer}), HasSubstr("the administrator does not allow it"));
    EXPECT_EQ(agent.ask("log"), "");
    fs::rename(aside, timer_.program());
    // What the agent has sent by now would come before this.
    constexpr std::uint32_t kMarker = 4000;
    ASSERT_TRUE(RecordingPort::send(portOf(timer_), kMarker, {}));
    EXPECT_EQ(tool.take(1), (std::vector<RecordedMessage>{{kMarker, {}}}));
    EXPECT_TRUE(tool.messages().empty());

    mounts.writeSettings(R"({"WhiteToolsList": ["worldclock"], "HideRestrictedTools": true})");
    agent.ask("changes");
    agent.ask("reload");
    EXPECT_EQ(agent.ask("entries"), "Clock Pro, ready, off, 0, , none, none; ");
    EXPECT_EQ(agent.ask("changes"), "[list -Timer]");

    mounts.writeSettings("{}");
    agent.ask("reload");
    EXPECT_EQ(agent.ask("entry", {kTimer}), "Timer, ready, runs, 0, , none, none")
        << "allowed again, while the agent runs";
}

TEST_F(ToolListTest, LogsWhatIsForbiddenOncePerChange) {
    const test::PrivateMounts mounts;
    mounts.writeSettings(R"({"WhiteToolsList": ["worldclock"]})");
    install(timer_);
    auto agent = startAgent(&mounts);
    agent.ask("reload");
    agent.ask("reload");
    EXPECT_EQ(agent.countInLog("forbidden due to white-list"), 1u);
    mounts.writeSettings(R"({"WhiteToolsList": ["timer"]})");
    agent.ask("reload");
    EXPECT_EQ(agent.ask("entry", {kTimer}), "Timer, ready, off, 0, , none, none");
    EXPECT_EQ(agent.countInLog("forbidden due to white-list"), 2u);
    mounts.writeSettings("{}");
    agent.ask("reload");
    mounts.writeSettings(R"({"WhiteToolsList": ["worldclock"]})");
    agent.ask("reload");
    EXPECT_EQ(agent.countInLog("forbidden due to white-list"), 3u);
    EXPECT_EQ(agent.ask("entry", {kTimer}), "Timer, restricted, off, 0, , none, none");
}

TEST_F(ToolListTest, TellsDamagedMissingAndRemovedToolsApart) {
    install(timer_);
    install(clock_);
    auto agent = startAgent();
    agent.ask("changes");
    fs::remove_all(timer_.path());
    fs::remove_all(clock_.path());
    fs::remove(home_.data() / "applications" / (std::string(kClock) + ".desktop"));
    agent.ask("reload");
    EXPECT_EQ(agent.ask("entries"), "Timer, damaged, off, 0, , none, none; ");
    EXPECT_EQ(agent.ask("changes"), "[list Timer -WorldClock]");
    EXPECT_THAT(agent.ask("activate", {kTimer}), HasSubstr("missing"));
}

TEST_F(ToolListTest, ListsAToolThatIsMissingAtLogin) {
    UtiliaToolLauncher::getDefaults()->setObject(
        Array{Value(kTimer), Value("com.example.Foreign"), Value(7)}, "LaunchAtLoginTools");
    auto agent = startAgent();
    EXPECT_EQ(agent.ask("entries"), "Timer, missing, off, 0, , none, none; ");
    EXPECT_THAT(agent.ask("activate", {kTimer}), HasSubstr("is not installed"));
}

TEST_F(ToolListTest, ListsAToolThatIsMissingAtItsDateOrAtTheLoginThatItHasAskedFor) {
    constexpr double kDay = 86'400;
    const double now = Date::now().secondsSinceReferenceDate;
    const auto schedule = [](const char* identifier, const char* name, const char* when,
                             Value value) {
        updateSchedulerPlist(identifier, name, [&](Dictionary& record) {
            record.set(when, value);
            if (record.find("date")) record.set("launchAtDate", true);
        });
    };
    schedule(kTimer, "Timer", "date", Date{now - 1});
    schedule(kClock, "World_Clock", "launchAtLogin", true);
    schedule("com.korvane.utilia.QuickNotes", "Quick Notes", "date", Date{now + kDay});
    schedule("com.korvane.utilia.MoonPhase", "Moon Phase", "launchAtLogin", false);
    schedule("com.example.Foreign", "Foreign", "date", Date{now - 1});
    auto agent = startAgent();
    EXPECT_EQ(agent.ask("entries"), "Timer, missing, off, 0, , none, none; "
                                    "World Clock, missing, off, 0, , none, none; ");
    EXPECT_THAT(agent.ask("activate", {kTimer}), HasSubstr("is not installed"));
    install(timer_);
    agent.ask("reload");
    EXPECT_EQ(agent.ask("entry", {kTimer}), "Timer, ready, off, 0, , none, none");
    AgentScheduler::cancelScheduleByName("World_Clock", kClock);
    updateSchedulerPlist(kClock, "World_Clock",
                         [](Dictionary& record) { record.remove("launchAtLogin"); });
    agent.ask("reload");
    EXPECT_EQ(agent.ask("entry", {kClock}), "none");
}

TEST_F(ToolListTest, FollowsAToolToAnotherPlace) {
    install(timer_);
    auto agent = startAgent();
    const TestBundle moved(
        home_, {.name = "Timer", .bundleIdentifier = kTimer, .folder = home_.path() / "Elsewhere"});
    install(moved);
    agent.ask("reload");
    const RecordingPort tool(portOf(moved));
    speak(timer_, 108, {"from the old place"});
    speak(moved, 108, {"from the new place"});
    expectEntry(agent, kTimer, "Timer, ready, runs, 0, from the new place, none, none");
}

TEST_F(ToolListTest, LeavesNoProxyBehind) {
    install(timer_);
    auto agent = startAgent();
    const RecordingPort tool(portOf(timer_));
    speak(timer_, 108, {"0:42"});
    expectEntry(agent, kTimer, "Timer, ready, runs, 0, 0:42, none, none");
    EXPECT_EQ(agent.ask("proxies"), "1");
    agent.ask("forget-the-list");
    EXPECT_EQ(agent.ask("proxies"), "0");
    speak(timer_, 108, {"to nobody"});
    agent.ask("changes");
    EXPECT_EQ(agent.ask("log"), "");
}

}  // namespace
}  // namespace utilia::agent
