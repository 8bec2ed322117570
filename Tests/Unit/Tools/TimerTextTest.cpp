#include "Applications/Tools/Timer/TimerText.h"

#include <gtest/gtest.h>

namespace utilia::tools {
namespace {

TEST(TimerText, WritesHoursOnlyWhereThereAreSome) {
    EXPECT_EQ(textFromSeconds(0), "0:00");
    EXPECT_EQ(textFromSeconds(7), "0:07");
    EXPECT_EQ(textFromSeconds(59 * 60 + 59), "59:59");
    EXPECT_EQ(textFromSeconds(3600), "1:00:00");
    EXPECT_EQ(textFromSeconds(100 * 3600 + 61), "100:01:01");
}

TEST(TimerText, ReadsMinutesAndClockTimes) {
    const std::pair<const char*, std::int64_t> table[] = {
        {"1", 60},      {"25", 1500},         {"90", 5400},        {"0:01", 1},
        {"1:30", 90},   {"61:01", 3661},      {"1:00:00", 3600},   {"01:05", 65},
        {"0:00:01", 1}, {"23:59:59", 86'399}, {"1439:59", 86'399},
    };
    for (const auto& [text, seconds] : table) EXPECT_EQ(secondsFromText(text), seconds) << text;
}

TEST(TimerText, RefusesWhatIsNoTime) {
    for (const char* text : {"",
                             ":",
                             "0",
                             "0:00",
                             "-1",
                             "+1",
                             "1:",
                             ":30",
                             "1:3",
                             "1:60",
                             "1:300",
                             "1:60:00",
                             "1:0:00",
                             "1:00:00:00",
                             "1.5",
                             "1 ",
                             " 1",
                             "1:3a",
                             "abc",
                             "24:00:00",
                             "1440",
                             "86399:00:00:00:00:00:00:00:00:00:00:00:00",
                             "99999999999999999999",
                             "9999999999:00"}) {
        EXPECT_EQ(secondsFromText(text), std::nullopt) << text;
    }
}

TEST(TimerText, FindsTheTimeThatATextBeginsWith) {
    EXPECT_EQ(leadingSeconds("0:07"), 7);
    EXPECT_EQ(leadingSeconds("0:00"), 0);
    EXPECT_EQ(leadingSeconds("1:05:00 (held)"), 3900);
    EXPECT_EQ(leadingSeconds("0:07（一時停止）"), 7);
    EXPECT_EQ(leadingSeconds("23:59:59"), 86'399);
    EXPECT_EQ(leadingSeconds("24:00:00"), 86'400);
    EXPECT_EQ(leadingSeconds("100:00:00"), 360'000);
    EXPECT_EQ(leadingSeconds("25:00:00 (held)"), 90'000);
    EXPECT_EQ(leadingSeconds("277777:46:40"), 1'000'000'000);
    EXPECT_EQ(leadingSeconds("277777:46:41"), std::nullopt);
    EXPECT_EQ(leadingSeconds("1:00:00:00"), std::nullopt);
    EXPECT_EQ(leadingSeconds("999999999:00:00:00:00:00:00:00:00:00:00:00:00"), std::nullopt);
    EXPECT_EQ(leadingSeconds("1000000001"), std::nullopt);
    EXPECT_EQ(leadingSeconds("1:0"), std::nullopt);
    EXPECT_EQ(leadingSeconds("12 o'clock"), std::nullopt);
    EXPECT_EQ(leadingSeconds("Time is up"), std::nullopt);
    EXPECT_EQ(leadingSeconds(""), std::nullopt);
}

TEST(TimerText, ReadsWhatItWrites) {
    for (std::int64_t seconds = 1; seconds < 86'400; seconds += 37)
        EXPECT_EQ(secondsFromText(textFromSeconds(seconds)), seconds);
    for (std::int64_t seconds = 0; seconds < 40'000'000; seconds += 3'697)
        EXPECT_EQ(leadingSeconds(textFromSeconds(seconds)), seconds);
}

}  // namespace
}  // namespace utilia::tools
