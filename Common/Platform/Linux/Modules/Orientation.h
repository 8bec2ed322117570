#pragma once

#include <cstddef>
#include <cstdint>

namespace utilia::platform {

// How TIFF and Exif number the ways in which rows of a picture may be stored: 1 is upright, 2 to 4
// are mirrored or upside down, 5 to 8 have columns for rows.
class Orientation final {
public:
    // Numbers beyond those mean upright.
    explicit Orientation(unsigned number = 1) : number_(number >= 1 && number <= 8 ? number : 1) {}

    bool isUpright() const { return number_ == 1; }
    bool swapsSides() const { return number_ >= 5; }

    // Puts a stored row of RGBA, the `y`th of `high` rows of `wide` pixels, where it belongs in the
    // upright picture.
    void placeRow(const std::uint8_t* row, std::size_t y, std::size_t wide, std::size_t high,
                  std::uint8_t* upright) const;

private:
    unsigned number_;
};

}  // namespace utilia::platform
