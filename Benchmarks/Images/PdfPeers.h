#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Common/Platform/Image.h"

namespace utilia::bench {

// The same pages by others. The picture is opaque.

// cairo, in memory: the size of the document.
std::size_t cairoPages(const platform::BitmapImageRep& picture, std::uint32_t pageHeight);

// GraphicsMagick's program, of a file with nothing but the pixels as RGBA; its library makes no PDF
// of several pages in memory.
struct MagickPages {
    std::size_t size = 0;
    std::uint64_t peak = 0;  // of the program's memory, in bytes
};
MagickPages graphicsMagickPages(const std::string& pixels, std::uint32_t width,
                                std::uint32_t height, std::uint32_t pageHeight,
                                const std::string& document);

}  // namespace utilia::bench
