#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "Common/Platform/Linux/Modules/Export/Codec.h"

namespace utilia::platform::bitmaps {

enum class BmpPacking { None, RLE4, RLE8, RLE24, Masks };

// The bits of a pixel that make up one channel.
class BmpMask final {
public:
    // Of neighbouring bits; none means that there is no such channel.
    static std::optional<BmpMask> of(std::uint32_t bits);

    bool isEmpty() const { return maximum_ == 0; }
    // 0 to 255.
    std::uint8_t valueIn(std::uint32_t pixel) const {
        const std::uint64_t value = pixel >> shift_ & maximum_;
        return static_cast<std::uint8_t>((value * 255 + maximum_ / 2) / maximum_);
    }

private:
    unsigned shift_ = 0;
    std::uint32_t maximum_ = 0;
};

// What a BMP file says about itself, after the checks: headers of 12 bytes (OS/2 1 and Windows 2),
// 16 to 64 (OS/2 2), 40, 52, 56, 108 and 124 (Windows 3 to 5).
struct BmpHeader {
    std::uint32_t wide = 0;
    std::uint32_t high = 0;
    bool isTopDown = false;
    unsigned bits = 0;  // of a pixel: 1, 2, 4, 8, 16, 24 or 32
    BmpPacking packing = BmpPacking::None;
    std::array<BmpMask, 4> masks = {};  // red, green, blue, alpha; of 16 and 32 bits
    std::array<std::array<std::uint8_t, 4>, 256> palette = {};  // RGBA
    Bytes pixels;                                               // to the end of the file
    Bytes profile;

    static std::optional<BmpHeader> read(Bytes file, Reason& reason);
};

}  // namespace utilia::platform::bitmaps
