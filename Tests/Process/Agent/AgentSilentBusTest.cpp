#include <chrono>
#include <csignal>

#include "Tests/Process/Agent/AgentFixture.h"

// An agent whose session bus takes connections, as the kernel does for it, and never answers.

namespace utilia::agent {
namespace {

using namespace std::chrono_literals;
using test::ChildProcess;
using testing::HasSubstr;
using testing::Not;

constexpr const char* kTitle = "Korvane Utilia";
// What waits for a bus waits for 25 seconds, or without limit; a busy machine needs nearly all the time below that.
constexpr auto kBounded = 24s;

class AgentSilentBusTest : public AgentApplicationTest {
protected:
    AgentSilentBusTest() { startBus(); }
    Environment onScreen() const {
        Environment all = display_.environment();
        all["LANGUAGE"] = "en";
        all["QT_LINUX_ACCESSIBILITY_ALWAYS_ON"] = "1";
        all["DBUS_SESSION_BUS_ADDRESS"] = bus_->address();
        return all;
    }
    bool hasLogged(const std::string& line) const {
        return test::eventually([&] { return log().find(line) != std::string::npos; });
    }
    void startAgain() const {
        auto second = startAgent(onScreen(), {"--show-ui"});
        EXPECT_EQ(second.waitForExit(kBounded), 0);
    }
    static void expectToEnd(ChildProcess& agent) {
        agent.signal(SIGTERM);
        EXPECT_EQ(agent.waitForExit(kBounded), 0);
    }

    test::TemporaryFolder displayFolder_;
    test::VirtualDisplay display_{displayFolder_.path()};
};

TEST_F(AgentSilentBusTest, IsAsMissingAtTheStart) {
    install(timer_);
    bus_->stop();
    auto agent = startAgent(onScreen());
    display_.waitForWindow(kTitle);
    EXPECT_TRUE(
        hasLogged("no status icon, and nothing is published: the session bus does not answer"));
    sayStatus(timer_, 1);
    expectToEnd(agent);
}

TEST_F(AgentSilentBusTest, DoesNotKeepAnAgentFromEndingThatHasNoWindowYet) {
    install(timer_);
    bus_->stop();
    auto agent = startAgent(offscreen());
    sayStatus(timer_, 1);  // waits until the agent is there
    expectToEnd(agent);
}

TEST_F(AgentSilentBusTest, IsTakenOnceItAnswers) {
    install(timer_);
    bus_->stop();
    auto agent = startAgent(onScreen());
    display_.waitForWindow(kTitle);
    ASSERT_TRUE(hasLogged("the session bus does not answer"));
    bus_->resume();
    auto panel = startPanel();
    expectItem(panel, agent);
    EXPECT_THAT(published(), HasSubstr("com.korvane.utilia.Timer"));
    expectToEnd(agent);
}

TEST_F(AgentSilentBusTest, DoesNotKeepTheFirstWindowOrTheEndWhenItFallsSilentLater) {
    install(timer_);
    auto panel = startPanel();
    auto agent = startAgent(onScreen());
    expectItem(panel, agent);
    EXPECT_THAT(ask(panel, "menu"), HasSubstr("Timer"));
    ASSERT_FALSE(display_.hasWindow(kTitle));
    bus_->stop();
    const auto stopped = std::chrono::steady_clock::now();
    startAgain();
    display_.waitForWindow(kTitle);
    EXPECT_LT(std::chrono::steady_clock::now() - stopped, kBounded);
    sayStatus(timer_, 1);
    speak(timer_, 108, {"after the bus"});
    expectToEnd(agent);
}

TEST_F(AgentSilentBusTest, IsTakenOnceItAnswersInThePlaceOfOneThatWasLost) {
    auto panel = startPanel();
    auto agent = startAgent(onScreen());
    expectItem(panel, agent);
    EXPECT_NE(ask(panel, "menu"), "no answer");
    agent.signal(SIGSTOP);
    bus_.reset();
    startBus();
    bus_->stop();
    agent.signal(SIGCONT);
    ASSERT_TRUE(hasLogged("the session bus is lost"));
    startAgain();
    display_.waitForWindow(kTitle);
    EXPECT_THAT(log(), Not(HasSubstr("the session bus is there")));
    bus_->resume();
    auto next = startPanel();
    expectItem(next, agent);
    bus_->stop();
    expectToEnd(agent);
}

TEST_F(AgentSilentBusTest, DoesNotKeepTheEndInThePlaceOfOneThatWasLost) {
    auto agent = startAgent(onScreen());
    display_.waitForWindow(kTitle);
    agent.signal(SIGSTOP);
    bus_.reset();
    startBus();
    bus_->stop();
    agent.signal(SIGCONT);
    ASSERT_TRUE(hasLogged("the session bus is lost"));
    expectToEnd(agent);
}

}  // namespace
}  // namespace utilia::agent
