#include <gtest/gtest.h>

#include "Applications/Tools/Timer/Countdown.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/FaultInjection.h"
#include "Tests/Support/TestBundle.h"

// A countdown whose tool is killed before and after each system call of a change.

namespace utilia::tools {
namespace {

constexpr const char* kTimer = "com.korvane.utilia.Timer";

std::optional<Date> scheduled() {
    std::optional<Date> date;
    readSchedulerPlist(kTimer, "Timer", [&date](const Dictionary& record) {
        const Value* const found = record.find(kSchedulerDateKey);
        if (record.boolean(kSchedulerLaunchAtDateKey) && found && found->date())
            date = *found->date();
    });
    return date;
}

void change(Countdown& countdown, const std::string& how) {
    if (how == "start") countdown.start(600);
    if (how == "hold") countdown.hold();
    if (how == "goOn") countdown.goOn();
    if (how == "clear") countdown.clear();
}

// What is wrong with what a killed tool has left of a countdown of 1500 s that became one of 600 s, or none
// where it was cleared.
std::string flawOf(const Countdown& found, const std::string& how) {
    if (found.end() && found.end() != scheduled()) return "nobody is told of its end";
    if (!found.isSet()) return how == "clear" ? "" : "it is lost";
    const bool isOld = found.length() == 1500 && found.secondsLeft() > 1400;
    const bool isNew = found.length() == 600 && found.secondsLeft() <= 600;
    return isOld || isNew ? "" : "it is a mixture";
}

// Arguments: how the countdown changes, and "held" or "running" for what it is before.
UTILIA_CHILD_ROLE(killedCountdown) {
    auto& kept = platform::UserDefaults::standardUserDefaults();
    const auto prepare = [&] {
        Countdown countdown(kept);
        countdown.start(1500);
        if (self.arguments[1] == "held") countdown.hold();
    };
    prepare();
    const std::size_t points = test::forEachKillPoint(
        1,
        [&] {
            Countdown countdown(kept);
            change(countdown, self.arguments[0]);
        },
        [&](const test::KillPoint& point) {
            if (const std::string flaw = flawOf(Countdown(kept), self.arguments[0]); !flaw.empty())
                self.say((point.isAfter ? "after " : "before ") + std::to_string(point.ordinal) +
                         ": " + flaw);
            prepare();
        });
    self.say(points > 20 ? "done" : "too few points");
    return testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed() ? 1 : 0;
}

class CountdownKillTest : public testing::TestWithParam<std::pair<const char*, const char*>> {
protected:
    test::TemporaryHome home_;
    test::TestBundle timer_{home_, {.name = "Timer", .bundleIdentifier = kTimer}};
};

TEST_P(CountdownKillTest, LeavesOneCountdownWhoseEndIsScheduled) {
    auto tool = timer_.role("killedCountdown", {GetParam().first, GetParam().second},
                            {.environment = {{"DBUS_SESSION_BUS_ADDRESS", "\x01"}}});
    EXPECT_EQ(tool.waitForLine(std::chrono::minutes(5)), "done");
    EXPECT_EQ(tool.waitForExit(), 0);
}

INSTANTIATE_TEST_SUITE_P(Changes, CountdownKillTest,
                         testing::Values(std::pair("start", "running"), std::pair("start", "held"),
                                         std::pair("hold", "running"), std::pair("goOn", "held"),
                                         std::pair("clear", "running")),
                         [](const auto& parameters) {
                             return std::string(parameters.param.first) + "_" +
                                    parameters.param.second;
                         });

}  // namespace
}  // namespace utilia::tools
