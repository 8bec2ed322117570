#include <chrono>
#include <filesystem>

#include <sys/prctl.h>

#include "Common/Platform/RunLoop.h"
#include "Common/Platform/Workspace.h"
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

}  // namespace
}  // namespace utilia::agent
