#include "Applications/Tools/MoonPhase/MoonPicture.h"

#include <cmath>
#include <numbers>

#include "Applications/Tools/Drawing/Shapes.h"

namespace utilia::tools {
namespace {

// Whether the sun shines on this place of the disc.
bool isLit(MoonPhase moon, double x, double y, double radius) {
    const double halfWidth = std::sqrt(radius * radius - y * y);
    const double edge = std::cos(2 * std::numbers::pi * moon.fraction) * halfWidth;
    return moon.fraction < 0.5 ? x > edge : x < -edge;
}

}  // namespace

Colour moonMask(MoonPhase moon, double x, double y) {
    const double radius = std::hypot(x, y);
    if (radius > 0.9) return {};
    const bool isRim = radius > 0.8;
    return {0, 0, 0, isRim || isLit(moon, x, y, 0.9) ? 1.0 : 0.15};
}

Colour moonIcon(MoonPhase moon, double x, double y) {
    constexpr double kRadius = 0.66;
    if (std::hypot(x, y) > kRadius)
        return plate(x, y, {0.12, 0.15, 0.32, 1}, {0.06, 0.08, 0.18, 1});
    return isLit(moon, x, y, kRadius) ? Colour{0.98, 0.93, 0.72, 1} : Colour{0.2, 0.24, 0.4, 1};
}

}  // namespace utilia::tools
