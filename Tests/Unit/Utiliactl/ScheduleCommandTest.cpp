#include <nlohmann/json.hpp>

#include "Common/UtiliaCommon/Scheduler/AgentScheduler.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"
#include "Tests/Support/PrivateBus.h"
#include "Tests/Support/TestBundle.h"
#include "Tests/Unit/Utiliactl/ControlProgram.h"

namespace utilia {
namespace {

using nlohmann::json;
using test::PrivateBus;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

constexpr const char* kTimer = "com.korvane.utilia.Timer";

class ScheduleCommandTest : public test::ControlProgramTest {
protected:
    static Array records() {
        Array all;
        accessAppGroupPlist([&all](platform::UserDefaults& suite) {
            all = suite.arrayForKey("Scheduler").value_or(Array());
        });
        return all;
    }
};

TEST_F(ScheduleCommandTest, AddsAsTheAgentDoes) {
    EXPECT_EQ(json::parse(
                  answer({"schedule", "add", "2026-11-21T10:00:00.5Z", kTimer, "Timer", "--json"})),
              json::parse(R"({"bundleid": "com.korvane.utilia.Timer", "name": "Timer",
                              "launchAtDate": true, "date": "2026-11-21T10:00:00.500Z",
                              "interval": 0, "launchAtLogin": false})"));
    EXPECT_EQ(records(), (Array{Dictionary{{"bundleid", kTimer},
                                           {"name", "Timer"},
                                           {"launchAtDate", true},
                                           {"date", Date::fromUnixTime(1795255200.5)},
                                           {"interval", 0}}}));
}

TEST_F(ScheduleCommandTest, AnswersPeopleWithTheRecord) {
    const std::string text = answer({"schedule", "add", "2026-11-21T10:00Z", kTimer, "Timer"});
    EXPECT_THAT(text, StartsWith("BUNDLE IDENTIFIER"));
    EXPECT_THAT(text, HasSubstr("2026-11-21T10:00:00.000Z"));
    const std::string note =
        "\n\"com.korvane.utilia.Timer\" is not installed: until it is, it cannot be started, and "
        "stays due.\n";
    EXPECT_EQ(answer({"schedule", "list"}) + note, text);
}

TEST_F(ScheduleCommandTest, AsksWhetherAToolOfAnotherLetterCaseIsMeant) {
    EXPECT_THAT(answer({"schedule", "add", "+3", "com.korvane.utilia.timer", "Timer"}),
                EndsWith("stays due. Is \"com.korvane.utilia.Timer\" meant?\n"));
}

TEST_F(ScheduleCommandTest, SaysNothingOfAToolThatIsInstalled) {
    test::TestBundle timer(home_, {.name = "Timer", .bundleIdentifier = kTimer});
    timer.install("none", {});
    const std::string text = answer({"schedule", "add", "+3600", kTimer, "Timer"});
    EXPECT_EQ(text, answer({"schedule", "list"}));
}

TEST_F(ScheduleCommandTest, DatesWithoutAZoneAreWhereTheUserIs) {
    const std::map<std::string, std::string> zone{{"TZ", "XYZ-2"}};
    const auto record = json::parse(
        answer({"schedule", "add", "2026-11-21 12:00", kTimer, "Timer", "--json"}, zone));
    EXPECT_EQ(record["date"], "2026-11-21T10:00:00.000Z");
}

TEST_F(ScheduleCommandTest, SecondsCountFromNow) {
    const double before = Date::now().unixTime();
    answer({"schedule", "add", "+3600", kTimer, "Timer"});
    const double after = Date::now().unixTime();
    const double date = records()[0].dictionary()->find("date")->date()->unixTime();
    EXPECT_GE(date, before + 3600);
    EXPECT_LE(date, after + 3600);
}

TEST_F(ScheduleCommandTest, CancelsAsTheAgentDoes) {
    answer({"schedule", "add", "+60", kTimer, "Timer"});
    const auto record = json::parse(answer({"schedule", "cancel", kTimer, "Timer", "--json"}));
    EXPECT_EQ(record["launchAtDate"], false);
    EXPECT_EQ(record["date"], nullptr);
    EXPECT_EQ(records(),
              (Array{Dictionary{{"bundleid", kTimer}, {"name", "Timer"}, {"interval", 0}}}));
}

TEST_F(ScheduleCommandTest, CancellingWithoutARecordMakesOneAsTheAgentDoes) {
    answer({"schedule", "cancel", kTimer, "Timer"});
    EXPECT_EQ(records(), (Array{Dictionary{{"bundleid", kTimer}, {"name", "Timer"}}}));
}

TEST_F(ScheduleCommandTest, TheAgentIsToldOfAddingButNotOfCancelling) {
    const PrivateBus bus(home_.runtime() / "bus");
    auto monitor = bus.monitor("type='signal',interface='com.apple.utilia'");
    answer({"schedule", "cancel", kTimer, "Timer"});
    answer({"schedule", "add", "+60", kTimer, "Timer"});
    answer({"schedule", "cancel", kTimer, "Timer"});
    test::ChildProcess::program("/usr/bin/dbus-send", {"--bus=" + bus.address(), "--type=signal",
                                                       "/", "com.apple.utilia.last"})
        .waitForExit();
    EXPECT_THAT(monitor.waitForLine().value_or(""), HasSubstr("member=agentUpdateScheduler"));
    EXPECT_THAT(monitor.waitForLine().value_or(""), HasSubstr("member=last"));
}

TEST_F(ScheduleCommandTest, ABadDateIsWrongUsageAndSaysHowItShouldBe) {
    EXPECT_EQ(refusal(2, {"schedule", "add", "tomorrow", kTimer, "Timer"}),
              "utiliactl: DATE: \"tomorrow\" is no date: give it as 2026-11-21T10:00, "
              "2026-11-21T10:00:00+01:00, or as +90m from now\n"
              "Run \"utiliactl schedule add --help\" for more.\n");
    EXPECT_EQ(records(), Array());
}

TEST_F(ScheduleCommandTest, WrongUsageIsAnsweredWithStatus2) {
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"schedule", "add"},
          {"schedule", "add", "+60"},
          {"schedule", "add", "+60", kTimer},
          {"schedule", "add", "+60", "", "Timer"},
          {"schedule", "add", "+60", kTimer, ""},
          {"schedule", "add", "+60", kTimer, "Timer", "more"},
          {"schedule", "cancel"},
          {"schedule", "cancel", kTimer},
          {"schedule", "cancel", kTimer, ""}}) {
        EXPECT_THAT(refusal(2, arguments), StartsWith("utiliactl: "));
    }
    EXPECT_EQ(records(), Array());
}

TEST_F(ScheduleCommandTest, SaysWhenTheScheduleCannotBeStored) {
    AgentScheduler::scheduleToolAtDate(Date{1}, kTimer, "Timer");
    std::filesystem::create_directories(home_.groupContainer() / "Library/Preferences" /
                                        "7QK2M9ZD4R.com.korvane.utilia.plist.new" / "not empty");
    EXPECT_THAT(refusal(1, {"schedule", "add", "+60", kTimer, "Timer"}),
                HasSubstr("utiliactl: the schedule cannot be stored\n"));
    EXPECT_THAT(refusal(1, {"schedule", "cancel", kTimer, "Timer"}),
                HasSubstr("utiliactl: the schedule cannot be stored\n"));
}

}  // namespace
}  // namespace utilia
