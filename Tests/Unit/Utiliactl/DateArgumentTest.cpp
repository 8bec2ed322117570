#include "Applications/utiliactl/DateArgument.h"

#include <cstdlib>

#include <gtest/gtest.h>

namespace utilia::control {
namespace {

using testing::HasSubstr;

// The user's zone for as long as the object lives.
class Zone final {
public:
    explicit Zone(const char* name) {
        if (const char* const before = std::getenv("TZ")) before_ = before;
        setenv("TZ", name, 1);
    }
    ~Zone() {
        if (before_.empty()) {
            unsetenv("TZ");
        } else {
            setenv("TZ", before_.c_str(), 1);
        }
    }
    Zone(const Zone&) = delete;
    Zone& operator=(const Zone&) = delete;

private:
    std::string before_;
};

const Date kNow = Date::fromUnixTime(1'800'000'000.25);

double unixTimeOf(const char* text) {
    const auto date = dateFromText(text, kNow);
    EXPECT_TRUE(date) << text;
    return date ? date->unixTime() : 0;
}

// The zones' rules written out, so that the tests need no files of zones.
constexpr const char* kCentralEurope = "CET-1CEST,M3.5.0,M10.5.0/3";

TEST(DateArgument, ReadsDatesWithAZone) {
    const Zone zone(kCentralEurope);
    const std::pair<const char*, double> table[] = {
        {"1970-01-01T00:00:00Z", 0},
        {"2001-01-01T00:00:00Z", 978307200},
        {"2026-11-21T10:00:00Z", 1795255200},
        {"2026-11-21T10:00Z", 1795255200},
        {"2026-11-21 10:00Z", 1795255200},
        {"2026-11-21t10:00Z", 1795255200},
        {"2026-11-21T11:00+01:00", 1795255200},
        {"2026-11-21T11:00+0100", 1795255200},
        {"2026-11-21T11:00+01", 1795255200},
        {"2026-11-21T04:30-05:30", 1795255200},
        {"2026-11-21T10:00:30.25Z", 1795255230.25},
        {"2024-02-29T00:00Z", 1709164800},
        {"9999-12-31T23:59:59Z", 253402300799.0},
        {"0001-01-01T00:00:00Z", -62135596800.0},
    };
    for (const auto& [text, unixTime] : table) EXPECT_EQ(unixTimeOf(text), unixTime) << text;
}

TEST(DateArgument, ReadsDatesWithoutAZoneWhereTheUserIs) {
    const Zone zone(kCentralEurope);
    EXPECT_EQ(unixTimeOf("2026-11-21T11:00"), 1795255200);
    EXPECT_EQ(unixTimeOf("2026-07-01T12:00"), unixTimeOf("2026-07-01T10:00Z"));
    EXPECT_EQ(unixTimeOf("2026-11-21"), unixTimeOf("2026-11-21T00:00+01:00"));
    const Zone another("XYZ+4:30");
    EXPECT_EQ(unixTimeOf("2026-11-21T05:30"), 1795255200);
}

TEST(DateArgument, OfATimeThatComesTwiceTheFirstIsMeant) {
    const Zone zone(kCentralEurope);
    EXPECT_EQ(unixTimeOf("2026-10-25T02:30"), unixTimeOf("2026-10-25T02:30+02:00"));
    EXPECT_EQ(unixTimeOf("2026-10-25T01:59:59"), unixTimeOf("2026-10-25T01:59:59+02:00"));
    EXPECT_EQ(unixTimeOf("2026-10-25T03:00"), unixTimeOf("2026-10-25T03:00+01:00"));
}

TEST(DateArgument, ATimeThatDoesNotComeIsRefused) {
    const Zone zone(kCentralEurope);
    const auto date = dateFromText("2026-03-29T02:30", kNow);
    ASSERT_FALSE(date);
    EXPECT_EQ(date.error().description, "\"2026-03-29T02:30\" does not come where you are: clocks "
                                        "are put forward over it");
    EXPECT_EQ(unixTimeOf("2026-03-29T01:59:59"), unixTimeOf("2026-03-29T01:59:59+01:00"));
    EXPECT_EQ(unixTimeOf("2026-03-29T03:00"), unixTimeOf("2026-03-29T03:00+02:00"));
    EXPECT_EQ(unixTimeOf("2026-03-29T02:30Z"), unixTimeOf("2026-03-29T04:30+02:00"));
}

TEST(DateArgument, ReadsTimesFromNow) {
    const std::pair<const char*, double> table[] = {
        {"+0", 0},     {"+90", 90},    {"+90s", 90},     {"+1.5", 1.5}, {"+15m", 900},
        {"+2h", 7200}, {"+1d", 86400}, {"+0.5d", 43200}, {"+001", 1},
    };
    for (const auto& [text, seconds] : table)
        EXPECT_EQ(unixTimeOf(text), 1'800'000'000.25 + seconds) << text;
}

TEST(DateArgument, RefusesWhatIsNoDate) {
    for (const char* text : {"",
                             " ",
                             "tomorrow",
                             "2026",
                             "2026-11",
                             "2026-13-01",
                             "2026-00-01",
                             "2026-02-29",
                             "2026-11-31",
                             "2026-1-1",
                             "26-11-21",
                             "0000-01-01",
                             "20261121",
                             "2026-11-21T",
                             "2026-11-21T10",
                             "2026-11-21T24:00",
                             "2026-11-21T10:60",
                             "2026-11-21T10:00:60",
                             "2026-11-21T10:00:5",
                             "2026-11-21T10:00:5.5",
                             "2026-11-21T10:00:",
                             "2026-11-21T10:00:005",
                             "2026-11-21T10:00:30e1",
                             "2026-11-21T1:00",
                             "2026-11-21T10:00z",
                             "2026-11-21T10:00ZZ",
                             "2026-11-21T10:00+1",
                             "2026-11-21T10:00+24:00",
                             "2026-11-21T10:00+01:60",
                             "2026-11-21T10:00+01:0",
                             "2026-11-21T10:00 +01:00",
                             "2026-11-21  10:00",
                             " 2026-11-21",
                             "2026-11-21 ",
                             "2026-11-21Z",
                             "-90",
                             "90",
                             "+",
                             "+-90",
                             "+ 90",
                             "+90 s",
                             "+90x",
                             "+90ms",
                             "+1e3",
                             "+0x10",
                             "+inf",
                             "+nan",
                             "++1",
                             "+.5",
                             "2026-11-21T10:00:30.5.5Z"}) {
        const auto date = dateFromText(text, kNow);
        ASSERT_FALSE(date) << text;
        EXPECT_THAT(date.error().description, HasSubstr("is no date: give it as")) << text;
    }
}

TEST(DateArgument, RefusesWhatLiesAfterTheYear9999) {
    for (const char* text :
         {"9999-12-31T23:59:59-01:00", "+253402300799", "+99999999999999999999d"}) {
        const auto date = dateFromText(text, kNow);
        ASSERT_FALSE(date) << text;
        EXPECT_THAT(date.error().description, HasSubstr("lies after the year 9999"));
    }
}

}  // namespace
}  // namespace utilia::control
