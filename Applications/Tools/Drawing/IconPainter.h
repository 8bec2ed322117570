#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>

#include "Common/Platform/Image.h"

namespace utilia::tools {

// Components from 0 to 1, not premultiplied.
struct Colour {
    double red = 0;
    double green = 0;
    double blue = 0;
    double alpha = 0;
};

// A picture as a function of the place: x to the right, y down, both from -1 to 1.
using Picture = std::function<Colour(double x, double y)>;

// The picture as an image with one square representation for each side, with smooth edges.
std::shared_ptr<platform::Image> paintIcon(std::initializer_list<std::uint32_t> sides,
                                           const Picture& picture);

}  // namespace utilia::tools
