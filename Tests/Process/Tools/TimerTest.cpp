#include <cmath>
#include <csignal>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Common/Platform/UserDefaults.h"
#include "Common/UtiliaCommon/PersistentData/ToolPersistentDataReader.h"
#include "Common/UtiliaCommon/Scheduler/AgentScheduler.h"
#include "Tests/Process/Tools/RunningTool.h"

// The tool Timer in its bundle.

namespace utilia::test {
namespace {

using testing::MatchesRegex;

constexpr const char* kBundle = UTILIA_TIMER_BUNDLE;
constexpr const char* kIdentifier = "com.korvane.utilia.Timer";

class TimerTest : public testing::Test {
protected:
    ChildProcess start(const std::vector<std::string>& arguments = {},
                       const std::map<std::string, std::string>& environment = {}) {
        auto tool = session_.start(kBundle, arguments, environment);
        session_.askForMenu(kBundle);
        return tool;
    }
    // Of the agent's list; empty when there is none.
    static std::optional<Date> scheduled() {
        std::optional<Date> found;
        AgentScheduler::enumerateTools([&](const auto& identifier, const auto&, const auto& date) {
            if (identifier == kIdentifier) found = date;
        });
        return found;
    }
    static std::string storedText() {
        return ToolPersistentDataReader("Timer.app", kIdentifier).menuText().value_or("");
    }
    // As if the time had gone by while the tool was off.
    static void letTheDatePass() {
        platform::UserDefaults::initWithDomain(kIdentifier)
            ->setObject(Date::fromUnixTime(Date::now().unixTime() - 1), "CountdownEnd");
    }
    ToolSession session_;
};

TEST_F(TimerTest, CountsUpEachSecond) {
    auto tool = start();
    EXPECT_TRUE(session_.comesToSay("0:00"));
    EXPECT_EQ(session_.nextText(), "0:01");
    EXPECT_EQ(session_.nextText(), "0:02");
    EXPECT_TRUE(session_.isMenuIconTemplate());
    EXPECT_EQ(scheduled(), std::nullopt);
}

TEST_F(TimerTest, SaysNothingMoreWhileItIsHeld) {
    auto tool = start();
    EXPECT_TRUE(session_.comesToSay("0:01"));
    ToolSession::click(kBundle);
    EXPECT_EQ(session_.nextText(), "0:01 (held)");
    ASSERT_TRUE(session_.fallsAsleep(tool));
    const auto before = ToolSession::wakeUps(tool);
    session_.serve(std::chrono::milliseconds(2500));
    EXPECT_EQ(ToolSession::wakeUps(tool), before) << "a timer that is held sleeps";
    ToolSession::click(kBundle);
    EXPECT_EQ(session_.nextText(), "0:01");
    EXPECT_EQ(session_.nextText(), "0:02");
}

TEST_F(TimerTest, GoesOnFromWhereItLastEnded) {
    auto tool = start();
    EXPECT_TRUE(session_.comesToSay("0:01"));
    ToolSession::click(kBundle);
    EXPECT_EQ(session_.nextText(), "0:01 (held)");
    tool.signal(SIGTERM);
    EXPECT_EQ(tool.waitForExit(), 0);
    EXPECT_EQ(storedText(), "0:01 (held)");
    auto next = start();
    EXPECT_TRUE(session_.comesToSay("0:01 (held)"));
}

TEST_F(TimerTest, IsHeldInEveryLanguage) {
    const std::map<std::string, std::string> german{{"LANGUAGE", "de"}};
    auto tool = start({}, german);
    EXPECT_TRUE(session_.comesToSay("0:01"));
    ToolSession::click(kBundle);
    EXPECT_EQ(session_.nextText(), "0:01 (angehalten)");
    tool.signal(SIGTERM);
    EXPECT_EQ(tool.waitForExit(), 0);
    auto next = start({}, german);
    EXPECT_TRUE(session_.comesToSay("0:01 (angehalten)"));
}

TEST_F(TimerTest, CountsDownAndSchedulesItsEnd) {
    const double now = Date::now().unixTime();
    auto tool = start({"25"});
    EXPECT_TRUE(session_.comesToSay("24:59 left"));
    EXPECT_EQ(session_.nextText(), "24:58 left");
    const auto date = scheduled();
    ASSERT_TRUE(date);
    EXPECT_NEAR(date->unixTime(), now + 1500, 20);
}

TEST_F(TimerTest, NotifiesWhenTheTimeIsUp) {
    auto services = session_.startServices({"notifications"});
    auto tool = start({"0:02"});
    EXPECT_TRUE(session_.comesToSay("Time is up"));
    EXPECT_EQ(services.waitForLine(), "notify Time is up | Your timer of 0:02 has ended.");
    EXPECT_EQ(scheduled(), std::nullopt);
    ToolSession::click(kBundle);
    EXPECT_EQ(session_.nextText(), "0:00");
    EXPECT_EQ(session_.nextText(), "0:01");
}

TEST_F(TimerTest, ShowsThatTheTimeIsUpWhereNobodyNotifies) {
    auto tool = start({"0:01"}, ToolSession::withoutBuses());
    EXPECT_TRUE(session_.comesToSay("Time is up"));
    EXPECT_TRUE(tool.isRunning());
}

TEST_F(TimerTest, HoldsACountdownAndItsSchedule) {
    auto tool = start({"25"});
    EXPECT_TRUE(session_.comesToSay("24:59 left"));
    ToolSession::click(kBundle);
    EXPECT_EQ(session_.nextText(), "24:59 left (held)");
    EXPECT_EQ(scheduled(), std::nullopt);
    ToolSession::click(kBundle);
    EXPECT_EQ(session_.nextText(), "24:59 left");
    EXPECT_TRUE(scheduled());
}

TEST_F(TimerTest, GoesOnCountingDownWhileItIsOff) {
    auto services = session_.startServices({"notifications"});
    auto tool = start({"25"});
    EXPECT_TRUE(session_.comesToSay("25:00 left"));
    tool.signal(SIGTERM);
    EXPECT_EQ(tool.waitForExit(), 0);
    EXPECT_THAT(storedText(), MatchesRegex("Until [0-2][0-9]:[0-5][0-9]"));
    EXPECT_TRUE(scheduled()) << "the agent starts it when the time is up";
    letTheDatePass();
    auto next = start();
    EXPECT_TRUE(session_.comesToSay("Time is up"));
    EXPECT_EQ(services.waitForLine(), "notify Time is up | Your timer of 25:00 has ended.");
    EXPECT_EQ(scheduled(), std::nullopt);
}

TEST_F(TimerTest, OutlivesAKill) {
    auto tool = start({"25"});
    EXPECT_TRUE(session_.comesToSay("25:00 left"));
    tool.kill();
    auto next = start();
    EXPECT_THAT(session_.nextText(), MatchesRegex("2[45]:[0-9]+ left"));
}

TEST_F(TimerTest, NotifiesOnceAlthoughTheAgentComesForItsDateAsWell) {
    auto services = session_.startServices({"notifications"});
    auto tool = start({"0:01"});
    EXPECT_TRUE(session_.comesToSay("Time is up"));
    EXPECT_EQ(services.waitForLine(), "notify Time is up | Your timer of 0:01 has ended.");
    ToolSession::send(kBundle, 103);
    tool.signal(SIGTERM);
    EXPECT_EQ(tool.waitForExit(), 0);
    EXPECT_EQ(session_.nextText(), "Time is up") << "what it says at its end";
    services.say("answer");
    EXPECT_EQ(services.waitForLine(), "done answer");
}

TEST_F(TimerTest, TakesAnotherTimeFromASecondStart) {
    auto tool = start();
    EXPECT_TRUE(session_.comesToSay("0:00"));
    auto second = session_.start(kBundle, {"10:00"});
    EXPECT_EQ(second.waitForExit(), 0);
    EXPECT_TRUE(session_.comesToSay("10:00 left"));
}

TEST_F(TimerTest, RefusesWhatIsNoTime) {
    auto tool = session_.start(kBundle, {"soon"});
    EXPECT_EQ(tool.waitForExit(), 2);
    EXPECT_THAT(session_.log(), testing::HasSubstr("timer: \"soon\" is no time"));
}

}  // namespace
}  // namespace utilia::test
