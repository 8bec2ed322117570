#include "Applications/Tools/Timer/Countdown.h"

#include <limits>
#include <utility>
#include <vector>

#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"

namespace utilia::tools {
namespace {

class CountdownTest : public testing::Test {
protected:
    // As the next process finds it.
    Countdown found() const { return Countdown(*defaults_); }
    void keep(Dictionary countdown) { defaults_->setObject(std::move(countdown), "Countdown"); }

    test::TemporaryHome home_;
    std::unique_ptr<platform::UserDefaults> defaults_ =
        platform::UserDefaults::initWithDomain("com.korvane.utilia.Timer");
    Countdown countdown_{*defaults_};
};

TEST_F(CountdownTest, IsNotSetAtFirst) {
    EXPECT_FALSE(countdown_.isSet());
    EXPECT_FALSE(countdown_.isHeld());
    EXPECT_EQ(countdown_.secondsLeft(), 0);
}

TEST_F(CountdownTest, EndsAtADateThatIsKept) {
    countdown_.start(1500);
    EXPECT_TRUE(countdown_.isSet());
    EXPECT_FALSE(countdown_.isHeld());
    EXPECT_NEAR(static_cast<double>(countdown_.secondsLeft()), 1500, 60);
    const Countdown next = found();
    EXPECT_EQ(next.length(), 1500);
    EXPECT_EQ(next.end(), countdown_.end());
}

TEST_F(CountdownTest, KeepsWhatIsLeftWhileItIsHeld) {
    countdown_.start(1500);
    countdown_.hold();
    const auto left = countdown_.secondsLeft();
    EXPECT_NEAR(static_cast<double>(left), 1500, 60);
    EXPECT_EQ(countdown_.end(), std::nullopt);
    Countdown next = found();
    EXPECT_TRUE(next.isHeld());
    EXPECT_EQ(next.secondsLeft(), left);
    next.goOn();
    EXPECT_FALSE(next.isHeld());
    EXPECT_NEAR(static_cast<double>(next.secondsLeft()), static_cast<double>(left), 60);
}

TEST_F(CountdownTest, IsOverOnceItsDateHasPassed) {
    countdown_.start(1500);
    keep({{"Length", 1500},
          {"Held", 1500},
          {"End", Date::fromUnixTime(Date::now().unixTime() - 3600)}});
    const Countdown next = found();
    EXPECT_TRUE(next.isSet());
    EXPECT_FALSE(next.isHeld());
    EXPECT_EQ(next.secondsLeft(), 0);
}

TEST_F(CountdownTest, LeavesNothingWhenItIsCleared) {
    countdown_.start(1500);
    countdown_.clear();
    EXPECT_FALSE(countdown_.isSet());
    EXPECT_FALSE(found().isSet());
}

TEST_F(CountdownTest, SaysNothingOfWhatItHasKept) {
    const test::TestLog lines;
    countdown_.start(1500);
    found();
    countdown_.hold();
    found();
    keep({{"Length", 1500}, {"Held", 0}});
    EXPECT_TRUE(found().isHeld()) << "just before its end";
    EXPECT_EQ(found().secondsLeft(), 0);
    countdown_.clear();
    found();
    EXPECT_EQ(lines.count("damaged"), 0u);
}

constexpr std::int64_t kHuge = std::numeric_limits<std::int64_t>::max();

// Which is of no use as seconds.
const Value kGarbage[] = {"soon",
                          -5,
                          86'400,
                          kHuge,
                          1.5,
                          true,
                          Date::fromUnixTime(0),
                          Array(),
                          Value(std::uint64_t{1} << 63)};

TEST_F(CountdownTest, EndsAtItsDateWhateverElseIsDamaged) {
    const Date end = Date::fromUnixTime(Date::now().unixTime() + 600);
    std::vector<Dictionary> damaged = {{{"End", end}},
                                       {{"End", end}, {"Length", 0}, {"Held", 0}},
                                       {{"End", end}, {"Length", 1500}},
                                       {{"End", end}, {"Held", 1500}}};
    for (const Value& value : kGarbage) {
        damaged.push_back({{"End", end}, {"Length", value}, {"Held", 1500}});
        damaged.push_back({{"End", end}, {"Length", 1500}, {"Held", value}});
        damaged.push_back({{"End", end}, {"Length", value}, {"Held", value}});
    }
    for (std::size_t i = 0; i < damaged.size(); ++i) {
        SCOPED_TRACE(i);
        const test::TestLog lines;
        keep(damaged[i]);
        const Countdown next = found();
        EXPECT_TRUE(next.isSet());
        EXPECT_FALSE(next.isHeld());
        EXPECT_EQ(next.end(), end);
        EXPECT_TRUE(next.length() == 1500 || (next.length() > 500 && next.length() <= 600))
            << next.length();
        EXPECT_EQ(lines.count("damaged, but can be used"), 1u);
    }
}

TEST_F(CountdownTest, IsHeldWhenNobodyKnowsItsEnd) {
    const std::pair<Dictionary, std::int64_t> table[] = {
        {{{"Length", 1500}}, 1500},
        {{{"Held", 700}}, 700},
        {{{"Length", "long"}, {"Held", 700}}, 700},
        {{{"Length", 1500}, {"Held", 700}, {"End", "soon"}}, 700},
        {{{"Length", 1500}, {"Held", -1}, {"End", 5}}, 1500},
    };
    for (const auto& [kept, left] : table) {
        SCOPED_TRACE(left);
        const test::TestLog lines;
        keep(kept);
        Countdown next = found();
        EXPECT_TRUE(next.isHeld());
        EXPECT_EQ(next.secondsLeft(), left);
        EXPECT_EQ(lines.count("damaged, but can be used"), 1u);
        next.goOn();
        EXPECT_NEAR(static_cast<double>(found().secondsLeft()), static_cast<double>(left), 60);
    }
}

TEST_F(CountdownTest, SaysWhenNothingOfItIsLeft) {
    const auto expectLost = [&](int i) {
        const test::TestLog lines;
        const Countdown next = found();
        EXPECT_FALSE(next.isSet()) << i;
        EXPECT_EQ(next.end(), std::nullopt) << i;
        EXPECT_EQ(lines.count("damaged, and lost"), 1u) << i;
    };
    int i = 0;
    for (const Value& value : kGarbage) {
        defaults_->setObject(value, "Countdown");
        expectLost(++i);
        if (!value.date()) keep({{"Length", value}, {"Held", value}, {"End", value}});
        expectLost(++i);
    }
    keep({});
    expectLost(++i);
    keep({{"Held", 0}});
    expectLost(++i);
    keep({{"Unknown", 1500}});
    expectLost(++i);
}

TEST_F(CountdownTest, IsNotConfusedByDatesThatNoCountdownHas) {
    for (const double date : {1e300, 1e12, -1e300}) {
        keep({{"Length", 1500}, {"Held", 1500}, {"End", Date{date}}});
        const Countdown next = found();
        EXPECT_TRUE(next.isSet()) << date;
        EXPECT_EQ(next.secondsLeft(), date > 0 ? 1'000'000'000 : 0) << date;
    }
}

TEST_F(CountdownTest, PassesOverKeysThatItDoesNotKnow) {
    countdown_.start(1500);
    defaults_->setObject("soon", "CountdownEnd");
    auto kept = defaults_->dictionaryForKey("Countdown").value_or(Dictionary());
    kept.set("Colour", "red");
    keep(kept);
    const test::TestLog lines;
    EXPECT_EQ(found().end(), countdown_.end());
    EXPECT_EQ(lines.count("damaged"), 0u);
}

}  // namespace
}  // namespace utilia::tools
