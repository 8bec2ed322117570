#include "Applications/Agent/Model/ScheduleRunner.h"

#include <optional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Common/UtiliaCommon/Scheduler/AgentScheduler.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"

// The records are real and lie in the shared store; time and tools are the test's.

namespace utilia::agent {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Outcome = ScheduleRunner::Outcome;

constexpr double kNow = 800'000'000;  // seconds, some time in 2026

// ---- acting

class ScheduleRunnerTest : public testing::Test {
protected:
    ScheduleRunner::Time time() {
        return {.now = [this] { return now_; },
                .at =
                    [this](Date date, std::function<void()> call) {
                        next_ = date;
                        wake_ = std::move(call);
                        return Handle([this] { next_.reset(); });
                    },
                .after =
                    [this](std::chrono::nanoseconds time, std::function<void()> call) {
                        auto& timer = time == ScheduleRunner::kSpread ? pause_ : patience_;
                        timer = std::move(call);
                        return Handle([&timer] { timer = nullptr; });
                    }};
    }
    ScheduleRunner::Actions actions() {
        return {.tell =
                    [this](const std::string& tool) {
                        if (telling_ != Telling::No) acts_.push_back("tell " + tool);
                        return telling_;
                    },
                .launch =
                    [this](const std::string& tool) {
                        if (isRunning_) return Outcome::Runs;
                        return act("start", tool);
                    },
                .launchAnyhow = [this](const std::string& tool) { return act("reopen", tool); },
                .launchAtLogin = [this](const std::string& tool) { return act("launch", tool); }};
    }
    Outcome act(const std::string& what, const std::string& tool) {
        acts_.push_back(what + " " + tool);
        return isPossible_ ? Outcome::Done : Outcome::NotNow;
    }
    // What the runner did since the last time, without waiting.
    std::vector<std::string> acts() { return std::exchange(acts_, {}); }
    // The same, with the time between launches passing.
    std::vector<std::string> actsInTime() {
        while (pause_) std::exchange(pause_, nullptr)();
        return acts();
    }
    void sleepUntil(double seconds) {
        now_ = {seconds};
        const auto wake = wake_;
        wake();
    }
    static void schedule(const std::string& tool, double date, double interval = 0) {
        updateSchedulerPlist(tool, tool + " name", [&](Dictionary& record) {
            record.set("launchAtDate", true);
            record.set("date", Date{date});
            record.set("interval", interval);
            record.set("launchAtLogin", true);
            record.set("of the tool's own", "kept");
        });
    }
    static Dictionary record(const std::string& tool) {
        Dictionary found;
        readSchedulerPlist(tool, tool + " name", [&](const Dictionary& one) { found = one; });
        return found;
    }
    static std::optional<double> dateOf(const std::string& tool) {
        const Dictionary found = record(tool);
        const Value* const date = found.find("date");
        if (!date || !date->date()) return std::nullopt;
        return date->date()->secondsSinceReferenceDate;
    }

    test::TemporaryHome home_;
    test::TestLog log_;
    Date now_{kNow};
    std::optional<Date> next_;
    std::function<void()> wake_;
    std::function<void()> pause_;
    std::function<void()> patience_;
    Telling telling_ = Telling::Told;  // as for tools that run
    bool isPossible_ = true;
    bool isRunning_ = false;  // and cannot be told
    std::vector<std::string> acts_;
    ScheduleRunner runner_{actions(), time()};
};

TEST_F(ScheduleRunnerTest, WaitsForTheNextDateAndActsOnIt) {
    schedule("a", kNow + 100);
    schedule("b", kNow + 50);
    runner_.start();
    EXPECT_THAT(acts(), IsEmpty());
    EXPECT_EQ(next_, Date{kNow + 50});
    sleepUntil(kNow + 50);
    EXPECT_THAT(acts(), ElementsAre("tell b"));
    EXPECT_EQ(next_, Date{kNow + 100});
    sleepUntil(kNow + 100);
    EXPECT_THAT(actsInTime(), ElementsAre("tell a"));
    EXPECT_EQ(next_, std::nullopt) << "nothing to wait for";
}

TEST_F(ScheduleRunnerTest, EndsALaunchThatIsNotRepeatedAndKeepsTheRestOfTheRecord) {
    schedule("a", kNow - 1);
    runner_.start();
    EXPECT_THAT(acts(), ElementsAre("tell a"));
    EXPECT_EQ(record("a"), (Dictionary{{"bundleid", "a"},
                                       {"name", "a name"},
                                       {"interval", 0.0},
                                       {"launchAtLogin", true},
                                       {"of the tool's own", "kept"}}));
}

TEST_F(ScheduleRunnerTest, SetsTheNextDateOfARepeatedLaunchAndKeepsTheInterval) {
    schedule("a", kNow - 10, 3600);
    runner_.start();
    EXPECT_EQ(record("a"), (Dictionary{{"bundleid", "a"},
                                       {"name", "a name"},
                                       {"launchAtDate", true},
                                       {"date", Date{kNow + 3590}},
                                       {"interval", 3600.0},
                                       {"launchAtLogin", true},
                                       {"of the tool's own", "kept"}}));
    EXPECT_EQ(next_, Date{kNow + 3590});
}

TEST_F(ScheduleRunnerTest, MakesUpForAMissedRepeatOnce) {
    schedule("a", kNow + 60, 60);
    runner_.start();
    sleepUntil(kNow + 100'000);  // asleep for a day
    EXPECT_THAT(actsInTime(), ElementsAre("tell a"));
    EXPECT_EQ(dateOf("a"), kNow + 100'020);
}

TEST_F(ScheduleRunnerTest, SpreadsOutWhatHasGatheredTheOldestFirst) {
    schedule("c", kNow - 1);
    schedule("a", kNow - 300);
    schedule("b", kNow - 20);
    runner_.start();
    EXPECT_THAT(acts(), ElementsAre("tell a")) << "the others wait their turn";
    ASSERT_TRUE(pause_);
    std::exchange(pause_, nullptr)();
    EXPECT_THAT(acts(), ElementsAre("tell b"));
    EXPECT_THAT(actsInTime(), ElementsAre("tell c"));
}

TEST_F(ScheduleRunnerTest, KeepsWhatCannotBeStartedAndTriesAgainWhenToolsChange) {
    schedule("a", kNow - 1);
    isPossible_ = false;
    telling_ = Telling::No;
    runner_.start();
    EXPECT_THAT(actsInTime(), ElementsAre("start a"));
    EXPECT_EQ(dateOf("a"), kNow - 1);
    EXPECT_THAT(log_.lines(), testing::Contains(HasSubstr("It stays due.")));
    schedule("b", kNow + 10);
    runner_.toolsHaveChanged();
    EXPECT_THAT(actsInTime(), ElementsAre("start a"));
    telling_ = Telling::Told;
    runner_.toolsHaveChanged();
    EXPECT_THAT(actsInTime(), ElementsAre("tell a"));
    EXPECT_EQ(dateOf("a"), std::nullopt);
    runner_.toolsHaveChanged();
    EXPECT_THAT(actsInTime(), IsEmpty());
}

TEST_F(ScheduleRunnerTest, LeavesARecordAloneThatItsToolHasChangedMeanwhile) {
    schedule("a", kNow - 1, 60);
    ScheduleRunner::Actions changing = actions();
    changing.tell = [](const std::string& tool) {
        schedule(tool, kNow + 777, 60);
        return Telling::Told;
    };
    ScheduleRunner runner(changing, time());
    runner.start();
    EXPECT_EQ(dateOf("a"), kNow + 777);
    EXPECT_EQ(next_, Date{kNow + 777});
}

TEST_F(ScheduleRunnerTest, ActsOnceWhenTheRecordCannotBeChanged) {
    // Two records of the same name: only the first is found by it, the second stays due for ever.
    accessAppGroupPlist([](platform::UserDefaults& suite) {
        const auto one = [](double date) {
            return Dictionary{
                {"bundleid", "a"}, {"name", "n"}, {"launchAtDate", true}, {"date", Date{date}}};
        };
        suite.setObject(Array{Value(one(kNow + 9)), Value(one(kNow - 1))}, kSchedulerKey);
    });
    runner_.start();
    EXPECT_THAT(actsInTime(), ElementsAre("tell a"));
    runner_.toolsHaveChanged();
    EXPECT_THAT(actsInTime(), IsEmpty());
}

TEST_F(ScheduleRunnerTest, GoesByMemoryWhenTheRecordOfARepeatedLaunchCannotBeChanged) {
    // As before; the interval is found by the name.
    accessAppGroupPlist([](platform::UserDefaults& suite) {
        suite.setObject(
            Array{Value(Dictionary{{"bundleid", "a"}, {"name", "n"}, {"interval", 60.0}}),
                  Value(Dictionary{{"bundleid", "a"},
                                   {"name", "n"},
                                   {"launchAtDate", true},
                                   {"date", Date{kNow - 1}},
                                   {"interval", 60.0}})},
            kSchedulerKey);
    });
    runner_.start();
    EXPECT_THAT(actsInTime(), ElementsAre("tell a"));
    for (const double next : {kNow + 59, kNow + 119}) {
        EXPECT_EQ(next_, Date{next});
        runner_.toolsHaveChanged();
        EXPECT_THAT(actsInTime(), IsEmpty());
        sleepUntil(next);
        EXPECT_THAT(actsInTime(), ElementsAre("tell a"));
    }
}

TEST_F(ScheduleRunnerTest, ForgetsWhatItActedOnWithItsRecord) {
    for (int times = 0; times < 2; ++times) {
        schedule("a", kNow - 1);  // the same date once more
        runner_.start();
        runner_.toolsHaveChanged();
        EXPECT_THAT(actsInTime(), ElementsAre("tell a"));
    }
}

// ---- what tools are owed

class ToolsAreOwedTest : public ScheduleRunnerTest {
protected:
    ToolsAreOwedTest() { schedule("a", kNow - 1, 60); }
    void startWith(Telling telling) {
        telling_ = telling;
        runner_.start();
    }
    bool isDue() const { return dateOf("a") == kNow - 1; }
    // As after an agent that was killed.
    std::vector<std::string> actsOfAnother() {
        ScheduleRunner another(actions(), time());
        another.start();
        return acts();
    }
};

TEST_F(ToolsAreOwedTest, HaveTheirDateWhenTheySpeakAfterTheStart) {
    startWith(Telling::No);
    EXPECT_THAT(actsInTime(), ElementsAre("start a"));
    EXPECT_TRUE(isDue());
    runner_.toolHasEnded("a");
    runner_.toolsHaveChanged();
    EXPECT_THAT(actsInTime(), IsEmpty()) << "it is started already";
    EXPECT_TRUE(isDue());
    telling_ = Telling::Told;
    runner_.toolHasSpoken("a");
    EXPECT_THAT(acts(), ElementsAre("tell a"));
    EXPECT_EQ(dateOf("a"), kNow + 59);
    EXPECT_FALSE(patience_);
    runner_.toolHasSpoken("a");
    EXPECT_THAT(acts(), IsEmpty()) << "once";
}

TEST_F(ToolsAreOwedTest, AreStartedOnceMoreByAnAgentThatFollowsOneThatWasKilled) {
    startWith(Telling::No);
    EXPECT_THAT(actsInTime(), ElementsAre("start a"));
    EXPECT_THAT(actsOfAnother(), ElementsAre("start a"));
}

TEST_F(ToolsAreOwedTest, HaveHadTheirDateWhenTheySayNothing) {
    startWith(Telling::No);
    ASSERT_TRUE(patience_);
    std::exchange(patience_, nullptr)();
    EXPECT_EQ(dateOf("a"), kNow + 59);
    EXPECT_THAT(actsInTime(), ElementsAre("start a"));
    telling_ = Telling::Told;
    runner_.toolHasSpoken("a");
    EXPECT_THAT(acts(), ElementsAre("tell a")) << "after all";
}

TEST_F(ToolsAreOwedTest, HaveWhatWasKeptForThemWhenItIsSent) {
    startWith(Telling::Kept);
    EXPECT_THAT(actsInTime(), ElementsAre("tell a"));
    EXPECT_TRUE(isDue());
    EXPECT_FALSE(patience_) << "it is not known to be deaf";
    runner_.toolHasSpoken("a");
    EXPECT_THAT(acts(), IsEmpty()) << "what is kept is on its way";
    runner_.keptIsOver("a", ToolList::Kept::Sent);
    EXPECT_EQ(dateOf("a"), kNow + 59);
}

TEST_F(ToolsAreOwedTest, AreToldAgainWhenTheyDidNotTakeItInTimeAndSpeak) {
    startWith(Telling::Kept);
    runner_.keptIsOver("a", ToolList::Kept::Failed);
    EXPECT_THAT(actsInTime(), ElementsAre("tell a"));
    EXPECT_TRUE(isDue());
    telling_ = Telling::Told;
    runner_.toolHasSpoken("a");
    EXPECT_THAT(acts(), ElementsAre("tell a"));
    EXPECT_EQ(dateOf("a"), kNow + 59);
}

TEST_F(ToolsAreOwedTest, AreToldAgainWhenTheyHaveRoomAgain) {
    startWith(Telling::Kept);
    runner_.tryAgain("a");
    EXPECT_THAT(actsInTime(), ElementsAre("tell a")) << "what is kept is on its way";
    runner_.keptIsOver("a", ToolList::Kept::Failed);
    telling_ = Telling::Told;
    runner_.tryAgain("a");
    EXPECT_THAT(actsInTime(), ElementsAre("tell a"));
    EXPECT_EQ(dateOf("a"), kNow + 59);
    runner_.tryAgain("a");
    EXPECT_THAT(actsInTime(), IsEmpty());
}

TEST_F(ToolsAreOwedTest, AreStartedWhenTheyEndWithoutHavingTakenIt) {
    for (const bool isInTime : {true, false}) {
        schedule("a", kNow - 1, 60);
        ScheduleRunner runner(actions(), time());
        telling_ = Telling::Kept;
        runner.start();
        EXPECT_THAT(actsInTime(), ElementsAre("tell a"));
        if (!isInTime) runner.keptIsOver("a", ToolList::Kept::Failed);
        telling_ = Telling::No;
        runner.toolHasEnded("a");
        EXPECT_THAT(actsInTime(), ElementsAre("start a")) << isInTime;
        runner.keptIsOver("a", ToolList::Kept::Failed);  // of the tool that has ended
        EXPECT_TRUE(isDue());
        telling_ = Telling::Told;
        runner.toolHasSpoken("a");
        EXPECT_THAT(acts(), ElementsAre("tell a"));
        EXPECT_EQ(dateOf("a"), kNow + 59);
    }
}

TEST_F(ToolsAreOwedTest, AreStartedWhenTheyWereJustEnding) {
    isRunning_ = true;
    startWith(Telling::No);
    EXPECT_THAT(actsInTime(), IsEmpty());
    EXPECT_TRUE(isDue());
    isRunning_ = false;
    runner_.toolHasEnded("a");
    EXPECT_THAT(actsInTime(), ElementsAre("start a"));
    EXPECT_TRUE(isDue()) << "until it is told";
    telling_ = Telling::Told;
    runner_.toolHasSpoken("a");
    EXPECT_THAT(acts(), ElementsAre("tell a"));
    EXPECT_EQ(dateOf("a"), kNow + 59);
}

TEST_F(ToolsAreOwedTest, AreToldWhenSomebodyElseHasStartedThemAndTheySpeak) {
    isRunning_ = true;
    startWith(Telling::No);
    runner_.toolsHaveChanged();
    EXPECT_THAT(actsInTime(), IsEmpty()) << "it is not tried again and again";
    telling_ = Telling::Told;
    runner_.toolHasSpoken("a");
    EXPECT_THAT(acts(), ElementsAre("tell a"));
    EXPECT_EQ(dateOf("a"), kNow + 59);
    EXPECT_FALSE(patience_);
}

TEST_F(ToolsAreOwedTest, AreLaunchedAsTheyAreWhenTheyRunAndNothingIsHeardOfThem) {
    isRunning_ = true;
    startWith(Telling::No);
    ASSERT_TRUE(patience_);
    std::exchange(patience_, nullptr)();
    EXPECT_THAT(actsInTime(), ElementsAre("reopen a"));
    EXPECT_TRUE(isDue()) << "it may just come up, to be told";
    ASSERT_TRUE(patience_);
    std::exchange(patience_, nullptr)();
    EXPECT_EQ(dateOf("a"), kNow + 59);
}

TEST_F(ToolsAreOwedTest, StayDueWhenTheyRunAndCannotBeLaunchedAsTheyAre) {
    isRunning_ = true;
    startWith(Telling::No);
    isPossible_ = false;
    ASSERT_TRUE(patience_);
    std::exchange(patience_, nullptr)();
    EXPECT_THAT(actsInTime(), ElementsAre("reopen a"));
    EXPECT_TRUE(isDue());
    EXPECT_FALSE(patience_);
    EXPECT_THAT(log_.lines(), testing::Contains(HasSubstr("It stays due.")));
    isPossible_ = true;
    isRunning_ = false;
    runner_.toolsHaveChanged();
    EXPECT_THAT(actsInTime(), ElementsAre("start a"));
}

TEST_F(ToolsAreOwedTest, StayDueWhenNoMoreIsKeptForThem) {
    startWith(Telling::NoRoom);
    EXPECT_THAT(actsInTime(), ElementsAre("tell a"));
    EXPECT_FALSE(patience_) << "it is known to be deaf";
    runner_.toolHasSpoken("a");
    EXPECT_THAT(actsInTime(), ElementsAre("tell a")) << "it still does not read";
    EXPECT_TRUE(isDue());
    telling_ = Telling::Kept;
    runner_.tryAgain("a");
    EXPECT_THAT(actsInTime(), ElementsAre("tell a"));
    runner_.keptIsOver("a", ToolList::Kept::Sent);
    EXPECT_EQ(dateOf("a"), kNow + 59);
}

// ---- what is not

TEST_F(ScheduleRunnerTest, PassesOverRecordsThatAreIncomplete) {
    accessAppGroupPlist([](platform::UserDefaults& suite) {
        suite.setObject(
            Array{Value(Dictionary{{"launchAtDate", true}}), Value("text"),
                  Value(Dictionary{{"launchAtDate", true},
                                   {"bundleid", "a"},
                                   {"name", "n"},
                                   {"date", "tomorrow"}}),
                  Value(Dictionary{{"bundleid", "a"}, {"name", "n"}, {"date", Date{kNow - 1}}})},
            kSchedulerKey);
    });
    runner_.start();
    EXPECT_THAT(actsInTime(), IsEmpty());
}

TEST_F(ScheduleRunnerTest, StartsAToolOnceThatIsDueAtLogin) {
    schedule("a", kNow - 1);
    runner_.startAtLogin({"b", "a", "c", "c"}, [] {});
    runner_.start();
    EXPECT_THAT(actsInTime(), ElementsAre("launch b", "launch c", "tell a"));
}

TEST_F(ScheduleRunnerTest, DoesNotStartAToolForTheLoginThatItHasStartedForItsDate) {
    telling_ = Telling::No;
    schedule("a", kNow - 1);
    runner_.start();
    runner_.startAtLogin({"a", "b"}, [] {});
    EXPECT_THAT(actsInTime(), ElementsAre("start a", "launch b"));
}

TEST_F(ScheduleRunnerTest, SaysWhenNobodyWaitsForTheLoginsStartAnyMore) {
    const auto done = [this] { acts_.push_back("done"); };
    runner_.startAtLogin({"a", "b"}, done);
    EXPECT_THAT(acts(), ElementsAre("launch a"));
    EXPECT_THAT(actsInTime(), ElementsAre("launch b", "done"));
    runner_.startAtLogin({}, done);
    EXPECT_THAT(acts(), ElementsAre("done"));
    schedule("c", kNow - 1);
    runner_.startAtLogin({"a", "c"}, done);
    runner_.start();
    EXPECT_THAT(acts(), ElementsAre("launch a"));
    EXPECT_THAT(actsInTime(), ElementsAre("done", "tell c")) << "this one has a date";
}

}  // namespace
}  // namespace utilia::agent
