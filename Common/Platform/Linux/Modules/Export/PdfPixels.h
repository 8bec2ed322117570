#pragma once

#include <cstddef>
#include <cstdint>

#include "Common/Platform/Linux/Modules/Export/ExportModule.h"

namespace utilia::platform::pdf {

// What the pixels of a picture have in common.
struct PixelTraits {
    bool isOpaque = false;
    bool isGrey = false;  // red, green and blue are the same
};
PixelTraits traitsOf(const UtiliaExportPixels& pixels);

// What of a pixel goes into an image of a document: all colours, one for all of them, or how
// opaque it is.
enum class Plane { RGB, Grey, Alpha };

inline std::size_t samplesOf(Plane plane) { return plane == Plane::RGB ? 3 : 1; }

// Bytes of a row with its filter's number.
inline std::size_t predictedRowBytes(Plane plane, std::uint32_t pixelsWide) {
    return 1 + samplesOf(plane) * pixelsWide;
}

// Writes a row as PNG's filter "Sub" does (PNG specification, 9.2): the filter's number, 1, then
// each sample less the same one of the pixel to its left.
void predictRow(Plane plane, const std::uint8_t* rgba, std::uint32_t pixelsWide,
                std::uint8_t* predicted);

}  // namespace utilia::platform::pdf
