#include "Applications/Tools/MoonPhase/MoonCalendar.h"

#include <array>
#include <cmath>
#include <cstddef>
#include <numbers>

// Marks a text for the catalogues, which have its translations.
#define N_(text) text

namespace utilia::tools {
namespace {

constexpr double kSecondsPerDay = 86'400;
constexpr double kDaysPerMonth = 29.530588853;      // from new moon to new moon
constexpr double kNewMoonUnixTime = 947'182'440.0;  // 2000-01-06 18:14 UTC

}  // namespace

MoonPhase moonPhaseAt(Date date) {
    const double months = (date.unixTime() - kNewMoonUnixTime) / (kDaysPerMonth * kSecondsPerDay);
    return {months - std::floor(months)};
}

double MoonPhase::litPart() const { return (1 - std::cos(2 * std::numbers::pi * fraction)) / 2; }

std::string MoonPhase::name() const {
    static constexpr std::array kNames{
        N_("New moon"),  N_("Waxing crescent"), N_("First quarter"), N_("Waxing gibbous"),
        N_("Full moon"), N_("Waning gibbous"),  N_("Last quarter"),  N_("Waning crescent")};
    // Each name stands for an eighth of the month around its moment.
    const auto eighth = static_cast<std::size_t>(std::lround(fraction * 8));
    return kNames[eighth % kNames.size()];
}

int MoonPhase::daysToFullMoon() const {
    const double months = fraction <= 0.5 ? 0.5 - fraction : 1.5 - fraction;
    return static_cast<int>(std::lround(months * kDaysPerMonth));
}

}  // namespace utilia::tools
