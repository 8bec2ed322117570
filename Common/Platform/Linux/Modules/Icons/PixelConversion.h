#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace utilia::platform::icons {

enum class ColourModel { BlackIsZero, WhiteIsZero, RGB, Palette };
enum class AlphaModel { None, Associated, Unassociated };

// How the samples of a picture are to be understood.
struct PixelLayout {
    unsigned bits = 8;     // of a sample: 1, 2, 4, 8 or 16
    unsigned samples = 1;  // of a pixel
    ColourModel colour = ColourModel::BlackIsZero;
    AlphaModel alpha = AlphaModel::None;
    unsigned alphaSample = 0;                          // its place in a pixel
    std::array<const std::uint16_t*, 3> palette = {};  // 2^bits entries each
    unsigned paletteShift = 8;                         // brings an entry to 8 bits

    unsigned colourSamples() const { return colour == ColourModel::RGB ? 3 : 1; }
};

// Turns `count` pixels, whose samples lie together, into RGBA.
void convertPixels(const PixelLayout& layout, const std::uint8_t* row, std::uint8_t* rgba,
                   std::size_t count);

// Turns `count` samples of one plane into their channels of RGBA, and leaves the other channels as
// they are; colours stay multiplied by associated alpha until divideByAlpha().
void convertPlane(const PixelLayout& layout, unsigned plane, const std::uint8_t* row,
                  std::uint8_t* rgba, std::size_t count);

// Takes the multiplication by alpha out of 8-bit RGBA.
void divideByAlpha(std::uint8_t* rgba, std::size_t count);

}  // namespace utilia::platform::icons
