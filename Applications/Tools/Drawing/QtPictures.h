#pragma once

#include <QPixmap>

#include "Applications/Tools/Drawing/IconPainter.h"
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

// A picture of this side on a screen with so many pixels to the unit.
inline QPixmap pixmapOf(const Picture& picture, int side, qreal ratio) {
    QPixmap pixmap = pixmapOf(*paintIcon({static_cast<std::uint32_t>(side * ratio)}, picture));
    pixmap.setDevicePixelRatio(ratio);
    return pixmap;
}

}  // namespace utilia::tools
