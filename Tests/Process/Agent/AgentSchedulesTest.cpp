#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>

#include <sys/prctl.h>

#include "Common/Platform/RunLoop.h"
#include "Common/Platform/Workspace.h"
#include "Common/UtiliaCommon/Scheduler/AgentScheduler.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"
#include "Tests/Process/Agent/AgentFixture.h"
#include "Tests/Support/ChildRole.h"

// What the agent starts at login and at dates, whoever is killed meanwhile.

namespace utilia::agent {
namespace {

// A tool that says its name, outlives the agent that started it, and ends with its test.
UTILIA_CHILD_ROLE(stayingTool) {
    prctl(PR_SET_PDEATHSIG, 0);
    if (!platform::RunningApplication::registerCurrentApplication()) return 1;
    const std::string& reports = self.arguments.at(0);
    test::ReportPipe::report(reports, self.arguments.at(1) + " started");
    while (std::filesystem::exists(reports))
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
    static bool isTold(test::RecordingPort& tool) {
        return test::eventually([&] {
            const auto& all = tool.messages();
            return std::count(all.begin(), all.end(), test::RecordedMessage{103, {}}) == 1;
        });
    }
    std::string rememberedLogin() const {
        std::ifstream file(home_.runtime() / "com.korvane.utilia/agent-login");
        return {std::istreambuf_iterator<char>(file), {}};
    }
};

TEST_F(AgentSchedulesTest, GoOnAtLoginAfterTheAgentWasKilled) {
    scheduleAtLogin(kTimer, "Timer");
    scheduleAtLogin(kClock, "World_Clock");
    auto agent = startAgent(offscreen());
    EXPECT_EQ(reports_.waitForLine(), "Timer started");
    agent.kill();
    EXPECT_THAT(rememberedLogin(), testing::HasSubstr("begun"));
    auto next = startAgent(offscreen());
    EXPECT_EQ(reports_.waitForLine(), "World Clock started");
    EXPECT_TRUE(
        test::eventually([&] { return rememberedLogin().find("begun") == std::string::npos; }));
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
    auto tool = test::ChildProcess::role("clickedTool", {portOf(timer_), "1"});
    ASSERT_EQ(tool.waitForLine(), "registered");
    sayStatus(timer_, 1);
    const std::string active = std::string("Timer [checkmark]; World__Clock; ") + kOwnEntries;
    ASSERT_EQ(menuThatBecomes(panel, active), active);
    tool.signal(SIGSTOP);
    EXPECT_EQ(ask(panel, "clicks " + std::to_string(kMoreThanThereIsRoomFor) + " Timer"), "done");
    AgentScheduler::scheduleToolAtDate(Date{Date::now().secondsSinceReferenceDate - 60}, kTimer,
                                       "Timer");
    // After ten seconds what is kept for it is given up.
    EXPECT_TRUE(test::eventually(
        [&] { return log().find("Failed to send Command") != std::string::npos; }));
    EXPECT_TRUE(isDue());
    tool.kill();
    EXPECT_EQ(reports_.waitForLine(), "Timer started");
    test::RecordingPort timer(portOf(timer_));
    sayStatus(timer_, 1);
    EXPECT_TRUE(isTold(timer));
    EXPECT_TRUE(test::eventually([&] { return !isDue(); }));
}

}  // namespace
}  // namespace utilia::agent
