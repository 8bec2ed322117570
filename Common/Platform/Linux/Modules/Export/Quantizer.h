#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "Common/Platform/Linux/Modules/Export/Codec.h"

namespace utilia::platform::bitmaps {

// Chooses the colours of a picture that may have no more than 256 of them, one of which stands for
// transparency where there is some, and tells each pixel which one it is. A picture of few colours
// keeps them exactly; else colours are chosen by median cut, and what a pixel is off by is passed
// on to those beside and below it (Floyd and Steinberg), so that areas keep their tone.
//
// Pixels are either transparent, when their alpha is below 128, or opaque in their own colour.
class Quantizer final {
public:
    using Colour = std::array<std::uint8_t, 3>;

    // Answers false when the source gives up.
    bool choose(Source& source);

    // At most 256, with the transparent one.
    const std::vector<Colour>& colours() const { return colours_; }
    int transparent() const { return transparent_; }  // -1 without transparency

    // Rows from the top, one after the other.
    void convertRow(const std::uint8_t* rgba, std::uint8_t* indices, std::size_t count);

private:
    struct Box;
    struct Cell;

    bool chooseExactly(const Source& source, std::size_t maximum);
    void cut(std::vector<Cell> cells, std::size_t maximum);
    std::uint8_t nearest(const std::array<int, 3>& colour);

    std::vector<Colour> colours_;
    int transparent_ = -1;
    bool isExact_ = false;
    std::vector<std::uint32_t> exactKeys_;  // sorted
    std::vector<std::uint8_t> exactIndices_;
    std::vector<std::int16_t> known_;  // of each cell, the colour for it; -1: not looked up yet
    std::vector<std::array<int, 3>> errors_, nextErrors_;
};

}  // namespace utilia::platform::bitmaps
