#pragma once

#include <string>

#include "Common/Foundation/Value.h"

namespace utilia::tools {

// The moon as it is on average: the true moon is up to 14 hours ahead of it or behind.
struct MoonPhase {
    double fraction = 0;  // of the way from one new moon to the next, from 0 to below 1

    double litPart() const;      // of the disc, from 0 to 1
    std::string name() const;    // "Waxing gibbous", a key of the tools' texts
    int daysToFullMoon() const;  // rounded
};

MoonPhase moonPhaseAt(Date date);

}  // namespace utilia::tools
