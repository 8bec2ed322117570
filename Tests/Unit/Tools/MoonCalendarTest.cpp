#include "Applications/Tools/MoonPhase/MoonCalendar.h"

namespace utilia::tools {
namespace {

MoonPhase phaseAtUnixTime(double seconds) { return moonPhaseAt(Date::fromUnixTime(seconds)); }

// Moments from an almanac. The mean moon is within 14 hours of them, which is 0.02 of a month.
constexpr double kNewMoonOf2024April8 = 1712600460;   // 18:21 UTC, an eclipse of the sun
constexpr double kNewMoonOf1999August11 = 934369020;  // 10:57 UTC, before the reference new moon
constexpr double kFirstQuarterOf2024March17 = 1710648660;  // 04:11 UTC
constexpr double kFullMoonOf2024January25 = 1706205240;    // 17:54 UTC
constexpr double kLastQuarterOf2024April2 = 1712027700;    // 03:15 UTC

TEST(MoonCalendar, KnowsTheFourPhases) {
    EXPECT_EQ(phaseAtUnixTime(kNewMoonOf2024April8).name(), "New moon");
    EXPECT_EQ(phaseAtUnixTime(kFirstQuarterOf2024March17).name(), "First quarter");
    EXPECT_EQ(phaseAtUnixTime(kFullMoonOf2024January25).name(), "Full moon");
    EXPECT_EQ(phaseAtUnixTime(kLastQuarterOf2024April2).name(), "Last quarter");
}

TEST(MoonCalendar, CountsBackBeyondItsReferenceToo) {
    const MoonPhase moon = phaseAtUnixTime(kNewMoonOf1999August11);
    EXPECT_GE(moon.fraction, 0);
    EXPECT_LT(moon.fraction, 1);
    EXPECT_EQ(moon.name(), "New moon");
}

TEST(MoonCalendar, LightsTheDiscByThePhase) {
    EXPECT_DOUBLE_EQ(MoonPhase{0}.litPart(), 0);
    EXPECT_DOUBLE_EQ(MoonPhase{0.25}.litPart(), 0.5);
    EXPECT_DOUBLE_EQ(MoonPhase{0.5}.litPart(), 1);
    EXPECT_DOUBLE_EQ(MoonPhase{0.75}.litPart(), 0.5);
}

TEST(MoonCalendar, NamesEighthsAroundTheirMoments) {
    EXPECT_EQ(MoonPhase{0.06}.name(), "New moon");
    EXPECT_EQ(MoonPhase{0.07}.name(), "Waxing crescent");
    EXPECT_EQ(MoonPhase{0.40}.name(), "Waxing gibbous");
    EXPECT_EQ(MoonPhase{0.60}.name(), "Waning gibbous");
    EXPECT_EQ(MoonPhase{0.90}.name(), "Waning crescent");
    EXPECT_EQ(MoonPhase{0.99}.name(), "New moon");
}

TEST(MoonCalendar, CountsTheDaysToTheNextFullMoon) {
    EXPECT_EQ(MoonPhase{0}.daysToFullMoon(), 15);
    EXPECT_EQ(MoonPhase{0.5}.daysToFullMoon(), 0);
    EXPECT_EQ(MoonPhase{0.75}.daysToFullMoon(), 22);
}

}  // namespace
}  // namespace utilia::tools
