#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Common/Platform/FileLock.h"
#include "Common/Platform/UserDefaults.h"
#include "Common/UtiliaCommon/PersistentData/ToolPersistentDataReader.h"
#include "Common/UtiliaCommon/Scheduler/AgentScheduler.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"
#include "Tests/Process/Tools/RunningTool.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/ScreenReader.h"
#include "Tests/Support/VirtualDisplay.h"

// The tool Timer in its bundle.

namespace utilia::test {
namespace {

using testing::MatchesRegex;

constexpr const char* kBundle = test::places::kTimerBundle;
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
    // Of a text such as "0:07"; -1 when it is none.
    int nextSeconds() { return secondsOf(session_.nextText()); }
    static int secondsOf(const std::string& text) {
        int minutes = 0;
        int seconds = 0;
        return std::sscanf(text.c_str(), "%d:%d", &minutes, &seconds) == 2 ? 60 * minutes + seconds
                                                                           : -1;
    }
    // Which second it is told of first is not known: a busy machine lets some go by. 0 or less when none comes.
    int comesToCountUp() {
        return secondsOf(session_.nextTextThatMatches(MatchesRegex("0:[0-5][1-9]")));
    }
    bool comesToCountDown() { return comesToCountDownFrom("2[45]:[0-9]+"); }
    // A countdown is first shown when it is kept and scheduled, which takes a moment.
    bool comesToCountDownFrom(const std::string& times) {
        return session_.nextTextThatMatches(MatchesRegex("(" + times + ") left")) != "";
    }
    // Holds it by a click, and answers the time that it says with that word behind it.
    std::string holdByClick(const std::string& held = " (held)") {
        ToolSession::click(kBundle);
        const std::string text = session_.nextTextThatMatches(testing::EndsWith(held));
        return text.substr(0, text.size() - std::min(text.size(), held.size()));
    }
    static std::string storedText() {
        return ToolPersistentDataReader("Timer.app", kIdentifier).menuText().value_or("");
    }
    static void storeText(const std::string& text) {
        accessAppGroupPlist([&](platform::UserDefaults& suite) {
            auto all = suite.dictionaryForKey(kToolPersistentDataKey).value_or(Dictionary());
            const std::string entry = std::string(kIdentifier) + "_Timer.app";
            auto record = all.dictionary(entry).value_or(Dictionary());
            record.set(kToolMenuTextKey, text);
            all.set(entry, std::move(record));
            suite.setObject(std::move(all), kToolPersistentDataKey);
        });
    }
    static bool isCountdownKept() {
        const auto kept = platform::UserDefaults::initWithDomain(kIdentifier);
        return kept->dictionaryForKey("Countdown").has_value();
    }
    // As if the time had gone by while the tool was off.
    static void letTheDatePass() {
        const auto kept = platform::UserDefaults::initWithDomain(kIdentifier);
        auto countdown = kept->dictionaryForKey("Countdown").value_or(Dictionary());
        countdown.set("End", Date::fromUnixTime(Date::now().unixTime() - 1));
        kept->setObject(std::move(countdown), "Countdown");
    }
    // To the tool that runs.
    void say(const char* word) {
        EXPECT_EQ(session_.start(kBundle, {word}).waitForExit(), 0) << word;
    }
    static void endOrderly(ChildProcess& tool) {
        tool.signal(SIGTERM);
        EXPECT_EQ(tool.waitForExit(), 0);
    }
    ToolSession session_;
};

TEST_F(TimerTest, CountsUpEachSecond) {
    auto tool = start();
    for (int last = -1, i = 0; i < 4; ++i) {
        const int next = nextSeconds();
        EXPECT_GT(next, last);
        last = next;
    }
    EXPECT_TRUE(session_.isMenuIconTemplate());
    EXPECT_EQ(scheduled(), std::nullopt);
}

TEST_F(TimerTest, CountsTheTimeThatGoesByWhileItCannotRun) {
    auto tool = start();
    int last = comesToCountUp();
    ASSERT_GT(last, 0);
    tool.signal(SIGSTOP);
    ToolSession::serve(std::chrono::seconds(3));
    tool.signal(SIGCONT);
    int largestStep = 0;
    for (int i = 0; i < 10 && largestStep < 3; ++i) {
        const int next = nextSeconds();
        largestStep = std::max(largestStep, next - last);
        last = next;
    }
    EXPECT_GE(largestStep, 3) << "of the texts that it has sent";
}

TEST_F(TimerTest, SaysNothingMoreWhileItIsHeld) {
    auto tool = start();
    ASSERT_GT(comesToCountUp(), 0);
    const std::string time = holdByClick();
    ASSERT_GT(secondsOf(time), 0);
    EXPECT_TRUE(ToolSession::fallsAsleep(tool, std::chrono::milliseconds(2500)))
        << "a timer that is held sleeps";
    ToolSession::click(kBundle);
    EXPECT_EQ(session_.nextText(), time);
    const int next = nextSeconds();
    EXPECT_GT(next, secondsOf(time));
    EXPECT_LT(next, secondsOf(time) + 60);
}

TEST_F(TimerTest, GoesOnFromWhereItLastEnded) {
    auto tool = start();
    ASSERT_GT(comesToCountUp(), 0);
    const std::string time = holdByClick();
    ASSERT_GT(secondsOf(time), 0);
    tool.signal(SIGTERM);
    EXPECT_EQ(tool.waitForExit(), 0);
    EXPECT_EQ(storedText(), time + " (held)");
    auto next = start();
    EXPECT_TRUE(session_.comesToSay(time + " (held)"));
}

TEST_F(TimerTest, IsHeldInEveryLanguage) {
    const std::map<std::string, std::string> german{{"LANGUAGE", "de"}};
    auto tool = start({}, german);
    ASSERT_GT(comesToCountUp(), 0);
    const std::string time = holdByClick(" (angehalten)");
    ASSERT_GT(secondsOf(time), 0);
    tool.signal(SIGTERM);
    EXPECT_EQ(tool.waitForExit(), 0);
    auto next = start({}, german);
    EXPECT_TRUE(session_.comesToSay(time + " (angehalten)"));
}

TEST_F(TimerTest, CountsDownAndSchedulesItsEnd) {
    const double before = Date::now().unixTime();
    auto tool = start({"25"});
    int last = 25 * 60 + 1;
    for (int i = 0; i < 3; ++i) {
        const std::string text = session_.nextText();
        EXPECT_THAT(text, MatchesRegex("2[45]:[0-5][0-9] left"));
        const int next = secondsOf(text);
        EXPECT_LT(next, last);
        last = next;
    }
    const auto date = scheduled();
    ASSERT_TRUE(date);
    EXPECT_GE(date->unixTime(), before + 1499);  // in whole seconds
    EXPECT_LE(date->unixTime(), Date::now().unixTime() + 1500);
}

TEST_F(TimerTest, NotifiesWhenTheTimeIsUp) {
    auto services = session_.startServices({"notifications"});
    auto tool = start({"0:02"});
    EXPECT_TRUE(session_.comesToSay("Time is up"));
    EXPECT_EQ(services.waitForLine(), "notify Time is up | Your timer of 0:02 has ended.");
    EXPECT_TRUE(eventually([] { return !scheduled(); }));
    ToolSession::click(kBundle);
    EXPECT_EQ(session_.nextText(), "0:00");
    EXPECT_GT(nextSeconds(), 0);
}

TEST_F(TimerTest, ShowsThatTheTimeIsUpWhereNobodyNotifies) {
    auto tool = start({"0:01"}, ToolSession::withoutBuses());
    EXPECT_TRUE(session_.comesToSay("Time is up"));
    EXPECT_TRUE(tool.isRunning());
}

TEST_F(TimerTest, HoldsACountdownAndItsSchedule) {
    auto tool = start({"25"});
    EXPECT_TRUE(comesToCountDown());
    const std::string time = holdByClick();
    ASSERT_THAT(time, MatchesRegex("2[45]:[0-9]+ left"));
    EXPECT_EQ(scheduled(), std::nullopt);
    ToolSession::click(kBundle);
    EXPECT_EQ(session_.nextText(), time);
    EXPECT_TRUE(scheduled());
}

TEST_F(TimerTest, GoesOnCountingDownWhileItIsOff) {
    auto services = session_.startServices({"notifications"});
    auto tool = start({"25"});
    EXPECT_TRUE(comesToCountDown());
    tool.signal(SIGTERM);
    EXPECT_EQ(tool.waitForExit(), 0);
    EXPECT_THAT(storedText(), MatchesRegex("Until [0-2][0-9]:[0-5][0-9]"));
    EXPECT_TRUE(scheduled()) << "the agent starts it when the time is up";
    letTheDatePass();
    auto next = start();
    EXPECT_TRUE(session_.comesToSay("Time is up"));
    EXPECT_EQ(services.waitForLine(), "notify Time is up | Your timer of 25:00 has ended.");
    EXPECT_TRUE(eventually([] { return !scheduled(); }));
}

// Where it cannot forget the countdown yet, because others hold its preferences, it has notified all the same.
TEST_F(TimerTest, NotifiesBeforeItForgetsSoThatAKillCannotSilenceIt) {
    auto services = session_.startServices({"notifications"});
    auto tool = start({"0:10"});
    EXPECT_NE(session_.nextTextThatMatches(testing::EndsWith(" left")), "");
    const std::string preferences = platform::UserDefaults::initWithDomain(kIdentifier)->path();
    auto lock = platform::FileLock::acquire(
        preferences + ".lock", platform::FileLock::Mode::Exclusive, std::chrono::seconds(30));
    ASSERT_TRUE(lock) << lock.error().description;
    const char* const kNotified = "notify Time is up | Your timer of 0:10 has ended.";
    EXPECT_EQ(services.waitForLine(), kNotified);
    tool.kill();
    lock->release();
    auto next = start();
    EXPECT_EQ(services.waitForLine(), kNotified) << "twice is better than never";
    EXPECT_TRUE(eventually([] { return !scheduled(); }));
}

TEST_F(TimerTest, OutlivesAKill) {
    auto tool = start({"25"});
    EXPECT_TRUE(comesToCountDown());
    tool.kill();
    auto next = start();
    EXPECT_THAT(session_.nextText(), MatchesRegex("2[45]:[0-9]+ left"));
}

// Its text is that of the last orderly end, when it counted up and was held.
TEST_F(TimerTest, RingsAfterAKillAlthoughItWasHeldWhenItLastEnded) {
    auto services = session_.startServices({"notifications"});
    auto first = start();
    say("stop");
    EXPECT_TRUE(session_.comesToSay("0:00 (held)"));
    endOrderly(first);
    ASSERT_EQ(storedText(), "0:00 (held)");
    auto tool = start();
    say("25");
    EXPECT_TRUE(comesToCountDown());
    tool.kill();
    ASSERT_EQ(storedText(), "0:00 (held)");
    auto next = start();
    EXPECT_THAT(session_.nextText(), MatchesRegex("2[45]:[0-9]+ left"));
    EXPECT_TRUE(scheduled());
    next.kill();
    letTheDatePass();
    auto last = start();
    EXPECT_TRUE(session_.comesToSay("Time is up"));
    EXPECT_EQ(services.waitForLine(), "notify Time is up | Your timer of 25:00 has ended.");
}

TEST_F(TimerTest, RingsWhenItIsStartedForAnEndThatItDidNotLiveToSee) {
    auto services = session_.startServices({"notifications"});
    auto first = start();
    say("stop");
    EXPECT_TRUE(session_.comesToSay("0:00 (held)"));
    endOrderly(first);
    auto tool = start();
    say("0:05");
    ASSERT_TRUE(eventually([] { return isCountdownKept(); }));
    tool.kill();
    auto next = start();
    EXPECT_TRUE(session_.comesToSay("Time is up"));
    EXPECT_EQ(services.waitForLine(), "notify Time is up | Your timer of 0:05 has ended.");
}

TEST_F(TimerTest, DoesNotCountUpFromWhatWasLeftOfACountdown) {
    auto first = start({"25"});
    EXPECT_TRUE(comesToCountDown());
    say("hold");
    EXPECT_TRUE(eventually([] { return !scheduled(); }));
    endOrderly(first);
    ASSERT_THAT(storedText(), MatchesRegex("2[45]:[0-9]+ left \\(held\\)"));
    auto tool = start();
    say("stop");
    EXPECT_TRUE(session_.comesToSay("0:00 (held)"));
    tool.kill();
    auto next = start();
    EXPECT_THAT(session_.nextText(), MatchesRegex("0:[0-5][0-9]"));
}

TEST_F(TimerTest, GoesOnFromMoreThanADay) {
    const auto startAndEnd = [&] {
        auto tool = start();
        EXPECT_NE(session_.nextText(), "");
        endOrderly(tool);
    };
    startAndEnd();
    storeText("100:00:00");
    startAndEnd();
    EXPECT_THAT(storedText(), MatchesRegex("100:00:[0-5][0-9]"));
    storeText("25:00:00 (held)");
    startAndEnd();
    EXPECT_EQ(storedText(), "25:00:00 (held)");
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
    EXPECT_NE(session_.nextTextThatMatches(MatchesRegex("0:[0-5][0-9]")), "");
    auto second = session_.start(kBundle, {"10:00"});
    EXPECT_EQ(second.waitForExit(), 0);
    EXPECT_TRUE(comesToCountDownFrom("10:00|9:5[0-9]"));
}

TEST_F(TimerTest, TakesWordsFromASecondStart) {
    auto tool = start({"25"});
    EXPECT_TRUE(comesToCountDown());
    say("hold");
    EXPECT_NE(session_.nextTextThatMatches(MatchesRegex("2[45]:[0-9]+ left \\(held\\)")), "");
    EXPECT_EQ(scheduled(), std::nullopt);
    say("go-on");
    EXPECT_THAT(session_.nextText(), MatchesRegex("2[45]:[0-9]+ left"));
    EXPECT_TRUE(scheduled());
    say("stop");
    EXPECT_TRUE(session_.comesToSay("0:00 (held)"));
    EXPECT_EQ(scheduled(), std::nullopt);
}

// The window, by keyboard and by ear.
class TimerWindowTest : public TimerTest {
protected:
    TimerWindowTest() {
        environment_ = display_.environment();
        environment_.insert({{"QT_QPA_PLATFORM", "xcb"}, {"HOME", session_.home().path()}});
        environment_.merge(reader_.environment());
    }
    void click() {
        ToolSession::click(kBundle);
        display_.waitForWindow("Timer");
    }
    void expectNoWindow() {
        EXPECT_TRUE(eventually([&] { return !display_.hasWindow("Timer"); }));
    }
    VirtualDisplay display_{session_.home().path()};
    ScreenReader reader_{session_.sessionBus(), session_.home().path()};
    std::map<std::string, std::string> environment_;
};

TEST_F(TimerWindowTest, SetsACountdownByKeyboardAlone) {
    auto tool = start({}, environment_);
    click();
    display_.press({"1", "0", "Return"});
    EXPECT_TRUE(comesToCountDownFrom("10:00|9:5[0-9]"));
    expectNoWindow();
    // It proposes what was last.
    click();
    display_.press({"Up", "alt+s"});
    EXPECT_TRUE(comesToCountDownFrom("11:00|10:5[0-9]"));
}

TEST_F(TimerWindowTest, HoldsGoesOnAndStops) {
    auto tool = start({"25"}, environment_);
    EXPECT_TRUE(comesToCountDown());
    click();
    display_.press({"Escape"});
    expectNoWindow();
    click();
    display_.press({"alt+h"});
    EXPECT_TRUE(eventually([&] { return !scheduled(); }));
    expectNoWindow();
    click();
    display_.press({"alt+g"});
    EXPECT_TRUE(eventually([] { return scheduled().has_value(); }));
    expectNoWindow();
    click();
    display_.press({"alt+t"});
    EXPECT_TRUE(session_.comesToSay("0:00 (held)"));
}

TEST_F(TimerWindowTest, NamesEverythingThatCanBeUsed) {
    auto tool = start({}, environment_);
    click();
    const auto elements = reader_.read("Timer", display_.environment());
    EXPECT_THAT(flawsOf(elements), testing::IsEmpty());
    EXPECT_EQ(elements.front().role, "dialog");
    const auto isFocused = [](const auto& element) {
        return element.role == "spin button" && element.name == "Minutes:" && element.is("focused");
    };
    EXPECT_TRUE(std::any_of(elements.begin(), elements.end(), isFocused));
    EXPECT_TRUE(reader_.press("Timer", "Start", display_.environment()));
    EXPECT_TRUE(comesToCountDown());
}

TEST_F(TimerWindowTest, OpensOnceWhenTimerIsStartedAgain) {
    auto tool = start({}, environment_);
    session_.askForMenu(kBundle);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(session_.start(kBundle, {}, environment_).waitForExit(), 0);
    display_.waitForWindow("Timer");
    const auto found =
        runProgram({"xdotool", "search", "--onlyvisible", "--name", "^Timer$"}, environment_);
    EXPECT_EQ(found.text.find('\n'), std::string::npos) << found.text;
}

TEST_F(TimerTest, RefusesWhatIsNoTime) {
    auto tool = session_.start(kBundle, {"soon"});
    EXPECT_EQ(tool.waitForExit(), 2);
    EXPECT_THAT(session_.log(), testing::HasSubstr("timer: \"soon\" is no time"));
}

}  // namespace
}  // namespace utilia::test
