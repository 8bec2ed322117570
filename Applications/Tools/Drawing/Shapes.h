#pragma once

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "Applications/Tools/Drawing/IconPainter.h"

// What the tools' pictures are made of: the distance of a place from a shape, negative inside. The smaller of two
// distances is both shapes together, the greater one what they have in common.

namespace utilia::tools {

inline double disc(double x, double y, double centreX, double centreY, double radius) {
    return std::hypot(x - centreX, y - centreY) - radius;
}

// A box around the centre with round corners; `halfWidth` and `halfHeight` include them.
inline double roundedBox(double x, double y, double centreX, double centreY, double halfWidth,
                         double halfHeight, double corner) {
    const double beyondX = std::abs(x - centreX) - halfWidth + corner;
    const double beyondY = std::abs(y - centreY) - halfHeight + corner;
    return std::hypot(std::max(beyondX, 0.0), std::max(beyondY, 0.0)) +
           std::min(std::max(beyondX, beyondY), 0.0) - corner;
}

// A line with round ends.
inline double stroke(double x, double y, double fromX, double fromY, double toX, double toY,
                     double halfWidth) {
    const double alongX = toX - fromX;
    const double alongY = toY - fromY;
    const double share = std::clamp(((x - fromX) * alongX + (y - fromY) * alongY) /
                                        (alongX * alongX + alongY * alongY),
                                    0.0, 1.0);
    return std::hypot(x - fromX - share * alongX, y - fromY - share * alongY) - halfWidth;
}

// The outline of a shape, drawn inside of it.
inline double outline(double distance, double width) {
    return std::max(distance, -distance - width);
}
inline double without(double distance, double taken) { return std::max(distance, -taken); }

// The ground that the tools' icons share: a rounded square, lighter at its top.
inline Colour plate(double x, double y, Colour top, Colour bottom) {
    if (roundedBox(x, y, 0, 0, 0.92, 0.92, 0.42) > 0) return {};
    const double down = (y + 0.92) / 1.84;
    const auto mixed = [down](double from, double to) { return from + (to - from) * down; };
    return {mixed(top.red, bottom.red), mixed(top.green, bottom.green),
            mixed(top.blue, bottom.blue), 1};
}

// A mask, for templates.
inline Colour mask(double distance) { return {0, 0, 0, distance < 0 ? 1.0 : 0.0}; }

}  // namespace utilia::tools
