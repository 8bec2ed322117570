#include "Applications/Tools/Timer/StopwatchPicture.h"

#include <algorithm>
#include <cmath>

#include "Applications/Tools/Drawing/Shapes.h"

namespace utilia::tools {
namespace {

// Edges lie where the pixels of the smallest icon, 16 by 16, have theirs: at eighths.
constexpr double kLine = 0.125;

double dial(double x, double y) { return disc(x, y, 0, 0.1875, 0.6875); }
double crown(double x, double y) {
    const double button = roundedBox(x, y, 0, -0.8125, 0.25, kLine / 2, 0.05);
    const double neck = roundedBox(x, y, 0, -0.65, kLine / 2, 0.18, 0);
    const double side = stroke(x, y, 0.56, -0.5, 0.66, -0.4, kLine / 2);
    return std::min({button, neck, side});
}
double hand(double x, double y) { return stroke(x, y, 0, 0.1875, 0, -0.2, kLine / 2); }

}  // namespace

Colour stopwatchMask(double x, double y) {
    return mask(std::min({outline(dial(x, y), kLine), crown(x, y), hand(x, y)}));
}

Colour stopwatchIcon(double x, double y) {
    const double scale = 1.5;
    const double u = x * scale;
    const double v = y * scale + 0.02;
    // What is left of the time, as a slice.
    const bool isSlice = dial(u, v) < -0.16 && u > 0 && std::atan2(u, 0.1875 - v) < 2.1;
    if (hand(u, v) < 0) return {0.11, 0.3, 0.33, 1};
    if (isSlice) return {0.99, 0.5, 0.36, 1};
    if (dial(u, v) < 0 || crown(u, v) < 0) return {0.97, 1, 0.99, 1};
    return plate(x, y, {0.26, 0.75, 0.71, 1}, {0.06, 0.47, 0.51, 1});
}

}  // namespace utilia::tools
