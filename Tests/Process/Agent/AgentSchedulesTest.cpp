#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>

#include "Applications/Agent/Model/ScheduleRunner.h"
#include "Common/Platform/Application.h"
#include "Common/Platform/RunLoop.h"
#include "Common/Platform/Workspace.h"
#include "Common/UtiliaCommon/Scheduler/AgentScheduler.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"
#include "Tests/Process/Agent/AgentFixture.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/StopWithoutLocks.h"

// What the agent starts at login and at dates, whoever is killed meanwhile.

namespace utilia::agent {
namespace {

// A tool that says its name, outlives the agent that started it, and ends with its test.
UTILIA_CHILD_ROLE(stayingTool) {
    test::outliveLauncher();
    if (!platform::RunningApplication::registerCurrentApplication()) return 1;
    const std::string& reports = self.arguments.at(0);
    test::ReportPipe::report(reports, self.arguments.at(1) + " started");
    while (std::filesystem::exists(reports))
        platform::RunLoop::currentRunLoop().runFor(std::chrono::milliseconds(50));
    return 0;
}

// The same, that says when it is brought to the front, and ends with its test. Of its port its test takes care.
UTILIA_CHILD_ROLE(reopenedTool) {
    struct Delegate final : platform::ApplicationDelegate {
        explicit Delegate(std::string path) : reports(std::move(path)) {}
        bool applicationShouldHandleReopen(bool, const std::vector<std::string>&) override {
            test::ReportPipe::report(reports, "reopened");
            return true;
        }
        const std::string reports;
    };
    test::outliveLauncher();
    Delegate delegate(self.arguments.at(0));
    auto& application = platform::Application::sharedApplication();
    application.setDelegate(&delegate);
    application.finishLaunching();
    test::ReportPipe::report(delegate.reports, "started");
    while (std::filesystem::exists(delegate.reports))
        platform::RunLoop::currentRunLoop().runFor(std::chrono::milliseconds(50));
    return 0;
}

class AgentSchedulesTest : public AgentApplicationTest {
protected:
    AgentSchedulesTest() {
        startBus();
        timer_.install("stayingTool", {reports_.path(), "Timer"});
        clock_.install("stayingTool", {reports_.path(), "World Clock"});
    }
    // As the user's service manager starts it: nothing tells it the session but the login manager.
    Environment withoutSession(const test::PrivateBus& systemBus) const {
        Environment all = offscreen();
        all["XDG_SESSION_ID"] = "";
        all["DBUS_SYSTEM_BUS_ADDRESS"] = systemBus.address();
        return all;
    }
    bool remembers(const std::string& session) const {
        return test::eventually([&] {
            const std::string login = rememberedLogin();
            return login.starts_with("session " + session + "\n") &&
                   login.find("begun") == std::string::npos;
        });
    }
    static void scheduleAtLogin(const char* identifier, const std::string& name) {
        updateSchedulerPlist(identifier, name,
                             [](Dictionary& record) { record.set("launchAtLogin", true); });
    }
    static void scheduleAtDate() {
        updateSchedulerPlist(kTimer, "Timer", [](Dictionary& record) {
            record.set("launchAtDate", true);
            record.set("date", Date{Date::now().secondsSinceReferenceDate - 60});
        });
    }
    static bool isDue() {
        bool isDue = false;
        readSchedulerPlist(kTimer, "Timer",
                           [&](const Dictionary& record) { isDue = record.find("date"); });
        return isDue;
    }
    // Starts the tool as the launcher does, and answers its process.
    pid_t launchTimer(const std::string& said) {
        EXPECT_TRUE(platform::Workspace::launchAppWithBundleIdentifier(
            kTimer, platform::WorkspaceLaunchOptions::None));
        EXPECT_EQ(reports_.waitForLine(), said);
        const auto running =
            platform::RunningApplication::runningApplicationsWithBundleIdentifier(kTimer);
        return static_cast<pid_t>(running.at(0).processIdentifier());
    }
    // A tool that speaks with the agent. It ends with the answer.
    test::ChildProcess startSpeakingTimer(test::ChildProcess& panel) {
        auto tool = test::ChildProcess::role("clickedTool", {portOf(timer_), "1"});
        EXPECT_EQ(tool.waitForLine(), "registered");
        sayStatus(timer_, 1);
        const std::string active = std::string("Timer [checkmark]; World__Clock; ") + kOwnEntries;
        EXPECT_EQ(menuThatBecomes(panel, active), active);
        return tool;
    }
    static void scheduleNow() {
        AgentScheduler::scheduleToolAtDate(Date{Date::now().secondsSinceReferenceDate - 60}, kTimer,
                                           "Timer");
    }
    static bool isTold(test::RecordingPort& tool) {
        return test::eventually([&] {
            const auto& all = tool.messages();
            return std::count(all.begin(), all.end(), test::RecordedMessage{103, {}}) == 1;
        });
    }
    // The icon comes when the agent's loop runs. What is due at its start has had its turn by then.
    test::ChildProcess startAgentThatHasLooked() {
        panel_ = startPanel();
        auto agent = startAgent(offscreen());
        expectItem(panel_, agent);
        return agent;
    }
    std::string rememberedLogin() const {
        std::ifstream file(home_.runtime() / "com.korvane.utilia/agent-login");
        return {std::istreambuf_iterator<char>(file), {}};
    }

    test::ChildProcess panel_;
};

// Tools enough that some are left, however late the kill comes on a busy machine.
TEST_F(AgentSchedulesTest, GoOnAtLoginAfterTheAgentWasKilled) {
    std::vector<std::unique_ptr<test::TestBundle>> tools;
    std::vector<std::string> reports;
    for (const char* name : {"ClipboardHistory", "FreeMemory", "HideMenuIcons", "MoonPhase",
                             "QuickNotes", "ReadLater"}) {
        const std::string identifier = std::string("com.korvane.utilia.") + name;
        tools.push_back(std::make_unique<test::TestBundle>(
            home_, test::TestBundle::Options{
                       .name = name, .bundleIdentifier = identifier, .copy = timer_.program()}));
        tools.back()->install("stayingTool", {reports_.path(), name});
        scheduleAtLogin(identifier.c_str(), name);
        reports.push_back(std::string(name) + " started");
    }
    auto agent = startAgent(offscreen());
    std::vector<std::string> heard{reports_.waitForLine().value_or("")};
    agent.kill();
    ASSERT_THAT(rememberedLogin(), testing::HasSubstr("begun"));
    auto next = startAgent(offscreen());
    while (heard.size() < reports.size()) {
        heard.push_back(reports_.waitForLine().value_or(""));
        ASSERT_NE(heard.back(), "");
    }
    EXPECT_THAT(heard, testing::UnorderedElementsAreArray(reports)) << "each of them once";
    EXPECT_TRUE(
        test::eventually([&] { return rememberedLogin().find("begun") == std::string::npos; }));
}

TEST_F(AgentSchedulesTest, ComeOnceInEachLoginAlsoWhereOnlyTheLoginManagerKnowsIt) {
    const test::PrivateBus systemBus(home_.path() / "system-bus");
    test::ChildProcessOptions options;
    options.environment = {{"DBUS_SYSTEM_BUS_ADDRESS", systemBus.address()}};
    options.diesWithTest = true;
    auto manager =
        test::ChildProcess::program(kPython, {test::places::kLoginManager, "3"}, options);
    ASSERT_EQ(manager.waitForLine(), "ready");
    install(timer_);  // it ends at once, so that it would be started again
    scheduleAtLogin(kTimer, "Timer");
    const auto logInAndOut = [&](const std::string& session) {
        auto agent = startAgent(withoutSession(systemBus));
        EXPECT_EQ(manager.waitForLine(), "asked");
        // The agent has its answer before the second one is given.
        for (int times = 0; times < 2; ++times)
            EXPECT_TRUE(test::eventually([&] { return published() != ""; }));
        EXPECT_TRUE(remembers(session));
        agent.signal(SIGTERM);
        EXPECT_EQ(agent.waitForExit(), 0);
    };
    logInAndOut("3");
    EXPECT_EQ(reports_.waitForLine(), "started");
    logInAndOut("3");
    manager.say("5");
    EXPECT_EQ(manager.waitForLine(), "done");
    logInAndOut("5");
    EXPECT_EQ(reports_.waitForLine(), "started");
    EXPECT_EQ(reports_.waitForLine(std::chrono::milliseconds(50)), std::nullopt)
        << "twice in three starts";
}

TEST_F(AgentSchedulesTest, DoNotWaitForASystemBusThatHangs) {
    test::PrivateBus systemBus(home_.path() / "system-bus");
    systemBus.stop();
    auto panel = startPanel();
    scheduleAtDate();
    scheduleAtLogin(kClock, "World_Clock");
    auto agent = startAgent(withoutSession(systemBus));
    expectItem(panel, agent);
    EXPECT_EQ(ask(panel, "menu"), std::string("Timer; World__Clock; ") + kOwnEntries);
    const std::vector<std::string> started{reports_.waitForLine().value_or(""),
                                           reports_.waitForLine().value_or("")};
    EXPECT_THAT(started, testing::UnorderedElementsAre("Timer started", "World Clock started"));
    EXPECT_TRUE(remembers("unknown"));
    agent.signal(SIGTERM);
    EXPECT_EQ(agent.waitForExit(), 0);
    systemBus.resume();
}

TEST_F(AgentSchedulesTest, SayWhereAPersonLooksThatADueToolIsNotInstalled) {
    std::filesystem::remove(home_.data() / "applications" / (std::string(kTimer) + ".desktop"));
    auto panel = startPanel();
    auto agent = startAgent(offscreen());
    expectItem(panel, agent);
    EXPECT_EQ(ask(panel, "menu"), std::string("World__Clock; ") + kOwnEntries);
    AgentScheduler::scheduleToolAtDate(Date{Date::now().secondsSinceReferenceDate + 1}, kTimer,
                                       "Timer");
    const std::string missing =
        std::string("Timer (not installed) [grey]; World__Clock; ") + kOwnEntries;
    EXPECT_EQ(menuThatBecomes(panel, missing), missing);
    EXPECT_TRUE(isDue());
    timer_.install("stayingTool", {reports_.path(), "Timer"});
    EXPECT_EQ(reports_.waitForLine(), "Timer started");
}

TEST_F(AgentSchedulesTest, TellADateAfterTheAgentThatStartedTheToolWasKilled) {
    scheduleAtDate();
    auto agent = startAgent(offscreen());
    EXPECT_EQ(reports_.waitForLine(), "Timer started");
    agent.kill();
    EXPECT_TRUE(isDue());
    test::RecordingPort timer(portOf(timer_));  // the tool has come up meanwhile
    auto next = startAgent(offscreen());
    EXPECT_TRUE(isTold(timer));
    EXPECT_TRUE(test::eventually([&] { return !isDue(); }));
}

TEST_F(AgentSchedulesTest, StartAToolThatEndedBeforeItCouldBeToldOfItsDate) {
    constexpr int kMoreThanThereIsRoomFor = 600;
    auto panel = startPanel();
    auto agent = startAgent(offscreen());
    expectItem(panel, agent);
    auto tool = startSpeakingTimer(panel);
    test::stopWithoutLocks(tool.pid(), home_.path());
    EXPECT_EQ(ask(panel, "clicks " + std::to_string(kMoreThanThereIsRoomFor) + " Timer"), "done");
    scheduleNow();
    // After ten seconds what is kept for it is given up.
    EXPECT_TRUE(test::eventually(
        [&] { return log().find("Failed to send Command") != std::string::npos; }));
    EXPECT_TRUE(isDue());
    tool.kill();
    EXPECT_EQ(reports_.waitForLine(), "Timer started") << log();
    test::RecordingPort timer(portOf(timer_));
    sayStatus(timer_, 1);
    EXPECT_TRUE(isTold(timer));
    EXPECT_TRUE(test::eventually([&] { return !isDue(); }));
}

// All that the agent has to go by is its list, which gathers changes.
TEST_F(AgentSchedulesTest, StartAToolThatEndedAMomentBeforeItsDate) {
    auto panel = startPanel();
    auto agent = startAgent(offscreen());
    expectItem(panel, agent);
    auto tool = startSpeakingTimer(panel);
    test::stopWithoutLocks(agent.pid(), home_.path());
    tool.kill();
    scheduleNow();
    agent.signal(SIGCONT);
    EXPECT_EQ(reports_.waitForLine(), "Timer started");
    test::RecordingPort timer(portOf(timer_));
    sayStatus(timer_, 1);
    EXPECT_TRUE(isTold(timer));
    EXPECT_TRUE(test::eventually([&] { return !isDue(); }));
}

TEST_F(AgentSchedulesTest, TellAToolThatTheLauncherHasJustStartedAndDoNotBringItToTheFront) {
    timer_.install("reopenedTool", {reports_.path()});
    launchTimer("started");
    scheduleAtDate();
    const auto begin = std::chrono::steady_clock::now();
    auto agent = startAgentThatHasLooked();
    EXPECT_TRUE(isDue());
    test::RecordingPort timer(portOf(timer_));  // now it has come up
    sayStatus(timer_, 1);
    EXPECT_TRUE(isTold(timer));
    EXPECT_TRUE(test::eventually([&] { return !isDue(); }));
    // A tool that says nothing for longer is brought to the front.
    if (std::chrono::steady_clock::now() - begin < ScheduleRunner::kPatience) {
        EXPECT_EQ(reports_.waitForLine(std::chrono::milliseconds(50)), std::nullopt);
    }
}

TEST_F(AgentSchedulesTest, StartAToolThatRanWithoutAWordAndEndsAtItsDate) {
    const pid_t tool = launchTimer("Timer started");
    scheduleAtDate();
    auto agent = startAgentThatHasLooked();
    kill(tool, SIGKILL);
    EXPECT_TRUE(isDue());
    EXPECT_EQ(reports_.waitForLine(), "Timer started");
}

TEST_F(AgentSchedulesTest, BringAToolToTheFrontThatRunsWithoutAWord) {
    timer_.install("reopenedTool", {reports_.path()});
    launchTimer("started");
    scheduleAtDate();
    auto agent = startAgent(offscreen());
    EXPECT_EQ(reports_.waitForLine(), "reopened");
    EXPECT_TRUE(test::eventually([&] { return !isDue(); }));
}

}  // namespace
}  // namespace utilia::agent
