#include "Applications/Tools/Timer/Countdown.h"

#include "Tests/Support/TemporaryHome.h"

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
    EXPECT_NEAR(static_cast<double>(countdown_.secondsLeft()), 1500, 5);
    const Countdown next = found();
    EXPECT_EQ(next.length(), 1500);
    EXPECT_EQ(next.end(), countdown_.end());
}

TEST_F(CountdownTest, KeepsWhatIsLeftWhileItIsHeld) {
    countdown_.start(1500);
    countdown_.hold();
    const auto left = countdown_.secondsLeft();
    EXPECT_NEAR(static_cast<double>(left), 1500, 5);
    EXPECT_EQ(countdown_.end(), std::nullopt);
    Countdown next = found();
    EXPECT_TRUE(next.isHeld());
    EXPECT_EQ(next.secondsLeft(), left);
    next.goOn();
    EXPECT_FALSE(next.isHeld());
    EXPECT_NEAR(static_cast<double>(next.secondsLeft()), static_cast<double>(left), 5);
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

TEST_F(CountdownTest, TakesValuesOfOtherTypesForNone) {
    keep({{"Length", 1500}});
    EXPECT_FALSE(found().isSet()) << "nothing is known of what is left";
    keep({{"Length", "long"}, {"Held", 1500}});
    EXPECT_FALSE(found().isSet());
    keep({{"Length", -5}, {"Held", -5}, {"End", "soon"}});
    EXPECT_FALSE(found().isSet());
    defaults_->setObject("soon", "Countdown");
    EXPECT_FALSE(found().isSet());
}

}  // namespace
}  // namespace utilia::tools
