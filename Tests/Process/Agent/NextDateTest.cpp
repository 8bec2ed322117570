#include <limits>
#include <optional>

#include <gtest/gtest.h>

#include "Applications/Agent/Model/ScheduleRunner.h"

// When a repeated launch comes next.

namespace utilia::agent {
namespace {

constexpr double kNow = 800'000'000;  // seconds, some time in 2026

TEST(NextDate, IsTheFirstWholeIntervalAfterNow) {
    EXPECT_EQ(nextDate({100}, 10, {100}), Date{110});
    EXPECT_EQ(nextDate({100}, 10, {101}), Date{110});
    EXPECT_EQ(nextDate({100}, 10, {110}), Date{120});
    EXPECT_EQ(nextDate({100}, 10, {1234}), Date{1240});
    EXPECT_EQ(nextDate({100}, 86400, {kNow}), Date{100 + 86400 * 9260.0});
    EXPECT_EQ(nextDate({100}, 10, {50}), Date{110}) << "the clock was set back";
}

TEST(NextDate, IsAlwaysAfterNow) {
    for (const double interval : {1.0, 1.1, 3.3, 59.9999, 86400.1, 1e9}) {
        for (double now = kNow; now < kNow + 10; now += 0.37) {
            const auto next = nextDate({kNow - 12345.678}, interval, {now});
            ASSERT_TRUE(next);
            EXPECT_GT(next->secondsSinceReferenceDate, now) << interval;
            EXPECT_LE(next->secondsSinceReferenceDate, now + 1.001 * interval) << interval;
        }
    }
}

TEST(NextDate, RepeatsNothingForAnIntervalThatIsNone) {
    for (const double interval :
         {0.0, -0.0, -1.0, 0.5, 1e-300, 1e300, std::numeric_limits<double>::infinity(),
          -std::numeric_limits<double>::infinity(), std::numeric_limits<double>::quiet_NaN()}) {
        EXPECT_EQ(nextDate({100}, interval, {200}), std::nullopt) << interval;
    }
    EXPECT_EQ(nextDate({1e300}, 10, {200}), std::nullopt);
}

}  // namespace
}  // namespace utilia::agent
