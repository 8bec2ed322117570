#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Common/Platform/Image.h"

namespace utilia::test {

// A picture of one colour pattern for each seed; the same in every process.
inline std::shared_ptr<platform::Image> sampleImage(std::uint32_t side, std::uint8_t seed) {
    platform::BitmapImageRep bitmap{side, side, {}};
    bitmap.rgba.reserve(std::size_t{side} * side * 4);
    for (std::uint32_t i = 0; i < side * side; ++i) {
        bitmap.rgba.push_back(seed);
        bitmap.rgba.push_back(static_cast<std::uint8_t>(i));
        bitmap.rgba.push_back(static_cast<std::uint8_t>(i >> 8));
        bitmap.rgba.push_back(0xff);
    }
    return platform::Image::initWithBitmap(std::move(bitmap));
}

inline std::string tiffOf(platform::Image& image) {
    const auto bytes = image.TIFFRepresentation();
    return bytes ? std::string(bytes->begin(), bytes->end()) : std::string();
}

inline std::string sampleTiff(std::uint32_t side, std::uint8_t seed) {
    return tiffOf(*sampleImage(side, seed));
}

// "8x8 seed 3", or "none": what a picture is, for comparing across processes.
inline std::string describe(const std::shared_ptr<platform::Image>& image) {
    if (!image) return "none";
    const auto pixels = image->representation(0);
    if (!pixels || pixels->rgba.empty()) return "empty";
    return std::to_string(pixels->pixelsWide) + "x" + std::to_string(pixels->pixelsHigh) +
           " seed " + std::to_string(pixels->rgba[0]) + (image->isTemplate() ? " template" : "");
}

}  // namespace utilia::test
