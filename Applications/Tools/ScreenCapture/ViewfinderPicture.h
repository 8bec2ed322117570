#pragma once

#include "Applications/Tools/Drawing/IconPainter.h"

namespace utilia::tools {

// The corners of a viewfinder: the sign of what takes pictures. The first is a mask.
Colour viewfinderMask(double x, double y);
Colour viewfinderIcon(double x, double y);

}  // namespace utilia::tools
