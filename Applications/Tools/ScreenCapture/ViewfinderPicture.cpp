#include "Applications/Tools/ScreenCapture/ViewfinderPicture.h"

#include <algorithm>
#include <cmath>

#include "Applications/Tools/Drawing/Shapes.h"

namespace utilia::tools {
namespace {

// Edges lie where the pixels of the smallest icon, 16 by 16, have theirs: at eighths.
constexpr double kLine = 0.125;

// A frame with gaps in the middle of each side.
double corners(double x, double y) {
    const double frame = outline(roundedBox(x, y, 0, 0, 0.875, 0.75, 0.25), kLine);
    const double across = std::abs(y) - 0.375;
    const double down = std::abs(x) - 0.4375;
    return std::max(frame, -std::min(across, down));
}

double lens(double x, double y) { return disc(x, y, 0, 0, 0.3125); }

}  // namespace

Colour viewfinderMask(double x, double y) { return mask(std::min(corners(x, y), lens(x, y))); }

Colour viewfinderIcon(double x, double y) {
    const double scale = 1.5;
    const double u = x * scale;
    const double v = y * scale;
    if (corners(u, v) < 0) return {0.97, 0.98, 1, 1};
    if (disc(u, v, 0.1, -0.1, 0.09) < 0) return {1, 1, 1, 1};
    if (lens(u, v) < 0) return {1, 0.79, 0.3, 1};
    return plate(x, y, {0.42, 0.53, 0.95, 1}, {0.24, 0.29, 0.75, 1});
}

}  // namespace utilia::tools
