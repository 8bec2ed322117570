#include "Applications/Tools/KeepAwake/CupPicture.h"

#include <algorithm>
#include <cmath>

#include "Applications/Tools/Drawing/Shapes.h"

namespace utilia::tools {
namespace {

// Edges lie where the pixels of the smallest icon, 16 by 16, have theirs: at eighths.
constexpr double kLine = 0.125;

double body(double x, double y) {
    // To where the round corners of the lower part begin.
    const double upper = roundedBox(x, y, -0.1875, 0.0175, 0.5625, 0.2675, 0.04);
    const double lower = roundedBox(x, y, -0.1875, 0.25, 0.5625, 0.375, 0.34);
    return std::min(upper, lower);
}

double handle(double x, double y) {
    return without(std::abs(disc(x, y, 0.4375, 0.1875, 0.25)) - kLine / 2, body(x, y));
}

double saucer(double x, double y) {
    return roundedBox(x, y, -0.1875, 0.8125, 0.5625, kLine / 2, kLine / 2);
}

double steam(double x, double y) {
    if (y < -0.95 || y > -0.36) return 1;
    const double sway = 0.08 * std::sin((y + 0.36) * 9);
    const double first = std::abs(x + 0.4375 - sway);
    const double second = std::abs(x - 0.0625 - sway);
    return std::min(first, second) - kLine / 2;
}

}  // namespace

Colour cupMask(Cup cup, double x, double y) {
    const double rest = std::min(handle(x, y), saucer(x, y));
    if (cup == Cup::Full) return mask(std::min({body(x, y), rest, steam(x, y)}));
    const double empty = std::min(outline(body(x, y), kLine), rest);
    if (cup == Cup::Empty) return mask(empty);
    const double line = stroke(x, y, -0.8, -0.72, 0.72, 0.8, kLine / 2);
    // A gap on one side keeps the line apart from what it crosses.
    const double gap = stroke(x, y, -0.66, -0.86, 0.86, 0.66, kLine / 2);
    return mask(std::min(without(empty, gap), line));
}

Colour cupIcon(double x, double y) {
    // The cup of the menu, in the middle of the plate.
    const double scale = 1.62;
    const double u = x * scale - 0.06;
    const double v = y * scale + 0.02;
    const double white = std::min({body(u, v), handle(u, v), saucer(u, v)});
    if (white < 0) return {1, 0.99, 0.97, 1};
    if (steam(u, v) < 0) return {1, 0.95, 0.86, 1};
    return plate(x, y, {0.98, 0.68, 0.24, 1}, {0.86, 0.43, 0.1, 1});
}

}  // namespace utilia::tools
