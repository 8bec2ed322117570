#include "Applications/Tools/Drawing/IconPainter.h"

#include <algorithm>
#include <cmath>

namespace utilia::tools {
namespace {

// Each pixel is the mean of this many samples in either direction.
constexpr std::uint32_t kSamples = 4;

std::uint8_t toByte(double component) {
    return static_cast<std::uint8_t>(std::lround(std::clamp(component, 0.0, 1.0) * 255));
}

// Colours count by their alpha, so that what is transparent does not tint an edge.
Colour meanColour(const Picture& picture, std::uint32_t column, std::uint32_t row,
                  std::uint32_t side) {
    Colour sum;
    const double step = 2.0 / (side * kSamples);
    for (std::uint32_t i = 0; i < kSamples * kSamples; ++i) {
        const double x = -1 + (column * kSamples + i % kSamples + 0.5) * step;
        const double y = -1 + (row * kSamples + i / kSamples + 0.5) * step;
        const Colour colour = picture(x, y);
        sum.red += colour.red * colour.alpha;
        sum.green += colour.green * colour.alpha;
        sum.blue += colour.blue * colour.alpha;
        sum.alpha += colour.alpha;
    }
    if (sum.alpha <= 0) return {};
    return {sum.red / sum.alpha, sum.green / sum.alpha, sum.blue / sum.alpha,
            sum.alpha / (kSamples * kSamples)};
}

platform::BitmapImageRep paintBitmap(std::uint32_t side, const Picture& picture) {
    platform::BitmapImageRep bitmap{side, side, {}};
    bitmap.rgba.reserve(std::size_t{4} * side * side);
    for (std::uint32_t row = 0; row < side; ++row) {
        for (std::uint32_t column = 0; column < side; ++column) {
            const Colour colour = meanColour(picture, column, row, side);
            for (const double component : {colour.red, colour.green, colour.blue, colour.alpha}) {
                bitmap.rgba.push_back(toByte(component));
            }
        }
    }
    return bitmap;
}

}  // namespace

std::shared_ptr<platform::Image> paintIcon(std::initializer_list<std::uint32_t> sides,
                                           const Picture& picture) {
    std::shared_ptr<platform::Image> image;
    for (const std::uint32_t side : sides) {
        auto bitmap = paintBitmap(side, picture);
        if (image) {
            image->addRepresentation(std::move(bitmap));
        } else {
            image = platform::Image::initWithBitmap(std::move(bitmap));
        }
    }
    return image;
}

}  // namespace utilia::tools
