#include "Tests/Unit/Scheduler/SchedulerFixture.h"

// Schedulers in several processes, with a real bus between them.

namespace utilia {
namespace {

using test::PrivateBus;
using test::ScriptedChild;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* kRule = "type='signal',interface='com.apple.utilia'";

class SchedulerNotification : public testing::Test {
protected:
    ScriptedChild start(const test::TestBundle& bundle) {
        return ScriptedChild(bundle.role("scheduler", {"patient"}));
    }

    test::TemporaryHome home_;
    test::TestBundle agentBundle_{
        home_, {.name = "Korvane Utilia", .bundleIdentifier = "com.korvane.utilia"}};
    test::TestBundle toolBundle_{home_};
    PrivateBus bus_{home_.runtime() / "bus"};
};

TEST_F(SchedulerNotification, TheBusSeesTheAgreedSignal) {
    auto monitor = bus_.monitor(kRule);
    auto tool = start(toolBundle_);
    tool.ask("tool-at-login", {"yes"});
    tool.ask("tool-at-date", {"1", "0"});
    EXPECT_THAT(monitor.waitForLine().value_or(""),
                AllOf(HasSubstr("path=/com/apple/utilia;"),
                      HasSubstr("interface=com.apple.utilia;"),
                      HasSubstr("member=agentUpdateScheduler")));
    tool.ask("agent-cancel", {"Sample Tool", "com.korvane.utilia.SampleTool"});
    tool.ask("tool-cancel");
    tool.ask("agent-at-date", {"1", "id", "name"});
    test::ChildProcess::program("/usr/bin/dbus-send", {"--bus=" + bus_.address(), "--type=signal",
                                                       "/", "com.apple.utilia.last"})
        .waitForExit();
    EXPECT_THAT(monitor.waitForLine().value_or(""), HasSubstr("member=agentUpdateScheduler"));
    EXPECT_THAT(monitor.waitForLine().value_or(""), HasSubstr("member=agentUpdateScheduler"));
    EXPECT_THAT(monitor.waitForLine().value_or(""), HasSubstr("member=last"));
}

TEST_F(SchedulerNotification, TheAgentHearsAToolAndItself) {
    auto agent = start(agentBundle_);
    auto tool = start(toolBundle_);
    agent.ask("observe", {"agent"});
    tool.ask("tool-at-date", {"1", "0"});
    EXPECT_EQ(agent.ask("wait", {"agent", "1"}), "1");
    agent.ask("agent-at-date", {"1", "id", "name"});
    EXPECT_EQ(agent.ask("wait", {"agent", "2"}), "2");
    EXPECT_THAT(agent.log(), IsEmpty());
}

TEST_F(SchedulerNotification, AnObserverIsKnownByItsPointer) {
    auto agent = start(agentBundle_);
    agent.ask("observe", {"first"});
    agent.ask("observe", {"second"});
    agent.ask("observe", {"second"});
    agent.ask("agent-at-date", {"1", "id", "name"});
    EXPECT_EQ(agent.ask("wait", {"second", "2"}), "2") << "added twice, called twice";
    EXPECT_EQ(agent.ask("calls", {"first"}), "1");
    agent.ask("stop-observing", {"second"});
    agent.ask("stop-observing", {"nobody"});
    agent.ask("agent-at-date", {"1", "id", "name"});
    EXPECT_EQ(agent.ask("wait", {"first", "2"}), "2");
    EXPECT_EQ(agent.ask("calls", {"second"}), "2") << "both ended";
}

TEST_F(SchedulerNotification, ABusThatHangsDoesNotKeepTheRecordFromBeingWritten) {
    bus_.stop();
    ScriptedChild tool(toolBundle_.role("scheduler"));
    tool.ask("tool-at-date", {"1", "0"});
    int found = 0;
    readSchedulerPlist(
        "com.korvane.utilia.SampleTool", "Sample Tool",
        [&found](const Dictionary& record) { found += record.boolean("launchAtDate"); });
    EXPECT_EQ(found, 1);
    EXPECT_EQ(tool.countInLog("the bus does not answer"), 1u);
}

TEST_F(SchedulerNotification, WithoutABusTheRecordIsWrittenAllTheSame) {
    std::filesystem::remove(home_.runtime() / "bus");
    auto tool = start(toolBundle_);
    tool.ask("tool-at-date", {"1", "0"});
    bool isScheduled = false;
    readSchedulerPlist(
        "com.korvane.utilia.SampleTool", "Sample Tool",
        [&isScheduled](const Dictionary& record) { isScheduled = record.boolean("launchAtDate"); });
    EXPECT_TRUE(isScheduled);
    EXPECT_THAT(tool.log(), IsEmpty());
}

}  // namespace
}  // namespace utilia
