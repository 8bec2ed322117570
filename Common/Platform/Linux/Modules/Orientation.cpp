#include "Common/Platform/Linux/Modules/Orientation.h"

#include <cstring>

namespace utilia::platform {

void Orientation::placeRow(const std::uint8_t* row, std::size_t y, std::size_t wide,
                           std::size_t high, std::uint8_t* upright) const {
    // Where the first pixel goes, and how far on the next one.
    const bool isMirrored = number_ == 2 || number_ == 3 || number_ == 6 || number_ == 7;
    const bool isUpsideDown = number_ == 3 || number_ == 4 || number_ == 7 || number_ == 8;
    const std::size_t uprightWide = swapsSides() ? high : wide;
    const std::size_t uprightHigh = swapsSides() ? wide : high;
    std::size_t left = swapsSides() ? y : 0;
    std::size_t top = swapsSides() ? 0 : y;
    if (isMirrored) left = uprightWide - 1 - left;
    if (isUpsideDown) top = uprightHigh - 1 - top;
    std::ptrdiff_t step = swapsSides() ? static_cast<std::ptrdiff_t>(uprightWide) : 1;
    if (swapsSides() ? isUpsideDown : isMirrored) step = -step;
    std::uint8_t* to = upright + (top * uprightWide + left) * 4;
    for (std::size_t x = 0; x < wide; ++x, row += 4) {
        std::memcpy(to, row, 4);
        if (x + 1 < wide) to += 4 * step;
    }
}

}  // namespace utilia::platform
