#pragma once

#include <QPixmap>

#include "Common/Platform/Image.h"

namespace utilia::tools {

// The first representation of an image that was drawn.
inline QPixmap pixmapOf(platform::Image& image) {
    const auto bitmap = image.bitmap(0);
    if (!bitmap) return {};
    const platform::BitmapImageRep& pixels = **bitmap;
    return QPixmap::fromImage(QImage(pixels.rgba.data(), static_cast<int>(pixels.pixelsWide),
                                     static_cast<int>(pixels.pixelsHigh), QImage::Format_RGBA8888)
                                  .copy());
}

}  // namespace utilia::tools
