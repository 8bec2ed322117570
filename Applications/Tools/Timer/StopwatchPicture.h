#pragma once

#include "Applications/Tools/Drawing/IconPainter.h"

namespace utilia::tools {

// The sign of what tells the time. The first is a mask.
Colour stopwatchMask(double x, double y);
Colour stopwatchIcon(double x, double y);

}  // namespace utilia::tools
