#include "Common/Logging/RepeatedLines.h"

#include "Tests/Support/TestLog.h"

namespace utilia::test {
namespace {

using Lines = std::vector<std::string>;

TEST(RepeatedLines, LogsAReasonOnceWithinTheInterval) {
    const TestLog log;
    RepeatedLines lines{std::chrono::hours(1)};
    for (int i = 0; i < 5; ++i) lines.log("size", "wrong size");
    EXPECT_EQ(log.lines(), Lines{"wrong size"});
}

TEST(RepeatedLines, KeepsReasonsApart) {
    const TestLog log;
    RepeatedLines lines{std::chrono::hours(1)};
    lines.log("size", "wrong size of A");
    lines.log("form", "wrong form");
    lines.log("size", "wrong size of B");
    EXPECT_EQ(log.lines(), (Lines{"wrong size of A", "wrong form"}));
}

TEST(RepeatedLines, SaysAfterTheIntervalHowOftenItCameUp) {
    TestLog log;
    int unlogged = 1;
    // Longer where the machine does not get to a second line within the interval.
    for (std::chrono::milliseconds interval(30); unlogged == 1; interval *= 2) {
        log.clear();
        RepeatedLines lines{interval};
        const auto first = std::chrono::steady_clock::now();
        unlogged = -1;
        while (log.lines().size() < 2) {
            lines.log("size", "wrong size");
            ++unlogged;
        }
        EXPECT_GE(std::chrono::steady_clock::now() - first, interval);
        ASSERT_LT(interval, std::chrono::minutes(1));
    }
    ASSERT_GT(unlogged, 1);
    EXPECT_EQ(log.lines(), (Lines{"wrong size", "wrong size (and " + std::to_string(unlogged - 1) +
                                                    " times before)"}));
}

TEST(RepeatedLines, RepeatsEveryLineWithoutAnInterval) {
    const TestLog log;
    RepeatedLines lines{std::chrono::nanoseconds(0)};
    lines.log("size", "wrong size");
    lines.log("size", "wrong size");
    EXPECT_EQ(log.lines(), (Lines{"wrong size", "wrong size"}));
}

TEST(RepeatedLines, HoldsAnyNumberOfReasons) {
    const TestLog log;
    RepeatedLines lines{std::chrono::hours(1)};
    for (int i = 0; i < 1000; ++i) lines.log(std::to_string(i), "line");
    EXPECT_EQ(log.lines().size(), 1000u);
}

}  // namespace
}  // namespace utilia::test
