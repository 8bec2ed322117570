#include "Common/Platform/Linux/Modules/Icons/PixelConversion.h"

#include <algorithm>
#include <cstring>

namespace utilia::platform::icons {
namespace {

template <unsigned Bits>
unsigned sampleAt(const std::uint8_t* row, std::size_t index) {
    if constexpr (Bits == 16) {
        std::uint16_t value;
        std::memcpy(&value, row + 2 * index, sizeof value);
        return value;
    } else if constexpr (Bits == 8) {
        return row[index];
    } else {
        const std::size_t bit = index * Bits;
        return (row[bit / 8] >> (8 - Bits - bit % 8)) & ((1u << Bits) - 1);
    }
}

std::uint8_t scaled(unsigned value, unsigned maximum) {
    return static_cast<std::uint8_t>((value * 255 + maximum / 2) / maximum);
}

// The colour that was multiplied by alpha. A colour brighter than its alpha allows is as bright as
// can be.
std::uint8_t divided(unsigned value, unsigned alpha) {
    if (alpha == 0) return 0;
    return value >= alpha ? 255 : scaled(value, alpha);
}

template <unsigned Bits>
void convert(const PixelLayout& layout, const std::uint8_t* row, std::uint8_t* rgba,
             std::size_t count) {
    constexpr unsigned kMaximum = (1u << Bits) - 1;
    const bool associated = layout.alpha == AlphaModel::Associated;
    for (std::size_t i = 0; i < count; ++i, rgba += 4) {
        const std::size_t first = i * layout.samples;
        const unsigned alpha = layout.alpha == AlphaModel::None
                                   ? kMaximum
                                   : sampleAt<Bits>(row, first + layout.alphaSample);
        for (unsigned channel = 0; channel < 3; ++channel) {
            unsigned value =
                sampleAt<Bits>(row, first + (layout.colour == ColourModel::RGB ? channel : 0));
            if (layout.colour == ColourModel::Palette) {
                const unsigned entry =
                    static_cast<unsigned>(layout.palette[channel][value]) >> layout.paletteShift;
                rgba[channel] = associated ? divided(entry, scaled(alpha, kMaximum))
                                           : static_cast<std::uint8_t>(entry);
                continue;
            }
            if (layout.colour == ColourModel::WhiteIsZero) {
                const unsigned white = associated ? alpha : kMaximum;
                value = white - std::min(value, white);
            }
            rgba[channel] = associated ? divided(value, alpha) : scaled(value, kMaximum);
        }
        rgba[3] = scaled(alpha, kMaximum);
    }
}

template <unsigned Bits>
void convertOnePlane(const PixelLayout& layout, unsigned plane, const std::uint8_t* row,
                     std::uint8_t* rgba, std::size_t count) {
    constexpr unsigned kMaximum = (1u << Bits) - 1;
    const bool isAlpha = layout.alpha != AlphaModel::None && plane == layout.alphaSample;
    const bool isGrey = !isAlpha && layout.colour != ColourModel::RGB;
    for (std::size_t i = 0; i < count; ++i, rgba += 4) {
        unsigned value = sampleAt<Bits>(row, i);
        if (isGrey && layout.colour == ColourModel::WhiteIsZero) value = kMaximum - value;
        const std::uint8_t byte = scaled(value, kMaximum);
        if (isGrey) {
            rgba[0] = rgba[1] = rgba[2] = byte;
        } else {
            rgba[isAlpha ? 3 : plane] = byte;
        }
        if (layout.alpha == AlphaModel::None) rgba[3] = 255;
    }
}

}  // namespace

void convertPixels(const PixelLayout& layout, const std::uint8_t* row, std::uint8_t* rgba,
                   std::size_t count) {
    if (layout.bits == 8 && layout.samples == 4 && layout.colour == ColourModel::RGB &&
        layout.alpha == AlphaModel::Unassociated) {
        std::memcpy(rgba, row, count * 4);
        return;
    }
    switch (layout.bits) {
    case 1:
        return convert<1>(layout, row, rgba, count);
    case 2:
        return convert<2>(layout, row, rgba, count);
    case 4:
        return convert<4>(layout, row, rgba, count);
    case 8:
        return convert<8>(layout, row, rgba, count);
    default:
        return convert<16>(layout, row, rgba, count);
    }
}

void convertPlane(const PixelLayout& layout, unsigned plane, const std::uint8_t* row,
                  std::uint8_t* rgba, std::size_t count) {
    if (layout.bits == 8) {
        convertOnePlane<8>(layout, plane, row, rgba, count);
    } else {
        convertOnePlane<16>(layout, plane, row, rgba, count);
    }
}

void divideByAlpha(std::uint8_t* rgba, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i, rgba += 4) {
        for (unsigned channel = 0; channel < 3; ++channel)
            rgba[channel] = divided(rgba[channel], rgba[3]);
    }
}

}  // namespace utilia::platform::icons
