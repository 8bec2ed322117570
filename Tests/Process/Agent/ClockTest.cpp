#include <chrono>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Applications/Agent/Model/ScheduleRunner.h"
#include "Common/Platform/DateTimer.h"
#include "Common/Platform/RunLoop.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"
#include "Tests/Support/SetClock.h"
#include "Tests/Support/TemporaryHome.h"

// Dates on a clock that is set, as it also looks to a process when the machine has slept.

namespace utilia::agent {
namespace {

using namespace std::chrono_literals;
using platform::DateTimer;
using platform::RunLoop;

constexpr auto kPatience = 30s;
constexpr double kHour = 3600;

class ClockTest : public testing::Test {
protected:
    ~ClockTest() override { test::setClock(0); }
    static Date inSeconds(double seconds) {
        return {Date::now().secondsSinceReferenceDate + seconds};
    }
    static bool comesTrue(const std::function<bool()>& condition) {
        return RunLoop::currentRunLoop().runUntil(condition, kPatience);
    }
    test::TemporaryHome home_;
};

TEST_F(ClockTest, DateIsReachedAtOnceWhenTheClockIsSetBeyondIt) {
    std::vector<Date> fired;
    const Date date = inSeconds(kHour);
    const Handle timer = DateTimer::scheduledTimer(date, [&] { fired.push_back(Date::now()); });
    RunLoop::currentRunLoop().runFor(10ms);
    ASSERT_TRUE(fired.empty());
    test::setClock(kHour + 1);
    ASSERT_TRUE(comesTrue([&] { return !fired.empty(); }));
    EXPECT_GE(fired[0], date);
}

TEST_F(ClockTest, DateIsWaitedForAgainAfterTheClockWasSet) {
    std::vector<Date> fired;
    const Date date = inSeconds(kHour);
    const Handle timer = DateTimer::scheduledTimer(date, [&] { fired.push_back(Date::now()); });
    for (const double off : {-kHour, 2.0, kHour - 0.5}) {
        test::setClock(off);
        RunLoop::currentRunLoop().runFor(10ms);
        EXPECT_TRUE(fired.empty() || off > 2) << off;
    }
    // By itself, without another word of the kernel's.
    ASSERT_TRUE(comesTrue([&] { return !fired.empty(); }));
    EXPECT_GE(fired[0], date);
    EXPECT_LT(fired[0].secondsSinceReferenceDate, date.secondsSinceReferenceDate + 25);
}

TEST_F(ClockTest, DateComesLaterWhenTheClockIsSetBack) {
    bool fired = false;
    const Date date = inSeconds(0.3);
    const Handle timer = DateTimer::scheduledTimer(date, [&] { fired = true; });
    test::setClock(-kHour);
    RunLoop::currentRunLoop().runFor(600ms);
    EXPECT_FALSE(fired) << "by the clock on the wall it is still an hour";
    test::setClock(0);
    EXPECT_TRUE(comesTrue([&] { return fired; }));
}

TEST_F(ClockTest, AgentMakesUpOnceForWhatItSleptThrough) {
    const Date date = inSeconds(kHour);
    updateSchedulerPlist("tool", "name", [&](Dictionary& record) {
        record.set("launchAtDate", true);
        record.set("date", date);
        record.set("interval", kHour);
    });
    std::vector<std::string> fired;
    ScheduleRunner::Actions actions;
    actions.tell = [&](const std::string& tool) {
        fired.push_back(tool);
        return Telling::Told;
    };
    actions.launch = [](const std::string&) { return ScheduleRunner::Outcome::Done; };
    actions.launchAtLogin = actions.launch;
    ScheduleRunner runner(actions);
    runner.start();
    RunLoop::currentRunLoop().runFor(10ms);
    ASSERT_TRUE(fired.empty());
    test::setClock(10.5 * kHour);  // asleep over nine repeats
    ASSERT_TRUE(comesTrue([&] { return !fired.empty(); }));
    // The time between two launches, twice.
    RunLoop::currentRunLoop().runFor(2 * ScheduleRunner::kSpread + 100ms);
    EXPECT_EQ(fired, std::vector<std::string>{"tool"});
    readSchedulerPlist("tool", "name", [&](const Dictionary& record) {
        const Date next = *record.find("date")->date();
        EXPECT_DOUBLE_EQ(next.secondsSinceReferenceDate - date.secondsSinceReferenceDate,
                         10 * kHour);
    });
    test::setClock(11.5 * kHour);
    EXPECT_TRUE(comesTrue([&] { return fired.size() == 2; })) << "and goes on from there";
}

}  // namespace
}  // namespace utilia::agent
