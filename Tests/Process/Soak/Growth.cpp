#include "Tests/Process/Soak/Growth.h"

#include <algorithm>

namespace utilia::test {

Trend trend(const std::vector<Sample>& samples, double Sample::*what, double longEnough) {
    const auto quarter = static_cast<std::ptrdiff_t>(std::max<std::size_t>(1, samples.size() / 4));
    const auto median = [quarter](auto begin, double Sample::*value) {
        std::vector<double> values;
        for (auto sample = begin; sample != begin + quarter; ++sample)
            values.push_back((*sample).*value);
        std::nth_element(values.begin(), values.begin() + quarter / 2, values.end());
        return values[static_cast<std::size_t>(quarter / 2)];
    };
    const auto first = samples.begin(), last = samples.end() - quarter;
    const double hours = (median(last, &Sample::seconds) - median(first, &Sample::seconds)) / 3600;
    const double growth = median(last, what) - median(first, what);
    return {.last = samples.back().*what,
            .growth = growth,
            .perHour = growth / hours,
            .isLong = samples.back().seconds - samples.front().seconds >= longEnough};
}

}  // namespace utilia::test
