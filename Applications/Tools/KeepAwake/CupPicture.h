#pragma once

#include "Applications/Tools/Drawing/IconPainter.h"

namespace utilia::tools {

enum class Cup {
    Empty,  // an outline
    Full,   // filled, and steaming
    Struck  // an outline that is struck through
};

// A cup of coffee: the sign of what keeps awake. The first is a mask.
Colour cupMask(Cup cup, double x, double y);
Colour cupIcon(double x, double y);

}  // namespace utilia::tools
