#pragma once

#include "Applications/Tools/Drawing/IconPainter.h"
#include "Applications/Tools/MoonPhase/MoonCalendar.h"

namespace utilia::tools {

// The moon in this phase, as the north of the earth sees it. The first is a mask.
Colour moonMask(MoonPhase moon, double x, double y);
Colour moonIcon(MoonPhase moon, double x, double y);

}  // namespace utilia::tools
