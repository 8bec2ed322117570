#include "Common/Platform/Linux/Modules/Export/PdfPixels.h"

#include <array>
#include <bit>
#include <cstring>

namespace utilia::platform::pdf {
namespace {

constexpr std::uint8_t kFilterSub = 1;

using Bytes = std::array<std::uint8_t, 4>;

// Each byte of a pixel that `mask` lets through, against the byte before it: zero when they are
// the same.
constexpr std::uint32_t kGreenAndBlue = std::bit_cast<std::uint32_t>(Bytes{0, 255, 255, 0});
constexpr std::uint32_t kAlpha = std::bit_cast<std::uint32_t>(Bytes{0, 0, 0, 255});

std::uint32_t againstTheByteBefore(std::uint32_t pixel) {
    const bool isLittle = std::endian::native == std::endian::little;
    return pixel ^ (isLittle ? std::rotl(pixel, 8) : std::rotr(pixel, 8));
}

// A distance between samples that the compiler knows lets it do many at a time.
template <std::size_t Samples, std::size_t First>
void subtractLeft(const std::uint8_t* rgba, std::uint32_t pixelsWide, std::uint8_t* predicted) {
    for (std::size_t i = 0; i < Samples; ++i) *predicted++ = rgba[First + i];
    for (std::uint32_t x = 1; x < pixelsWide; ++x) {
        rgba += 4;
        for (std::size_t i = First; i < First + Samples; ++i)
            *predicted++ =
                static_cast<std::uint8_t>(rgba[i] - rgba[static_cast<std::ptrdiff_t>(i) - 4]);
    }
}

}  // namespace

PixelTraits traitsOf(const UtiliaExportPixels& pixels) {
    PixelTraits traits{true, true};
    const std::uint8_t* at = pixels.rgba;
    for (std::uint32_t y = 0; y < pixels.pixelsHigh; ++y) {
        std::uint32_t every = ~std::uint32_t{0};
        std::uint32_t differences = 0;
        for (std::uint32_t x = 0; x < pixels.pixelsWide; ++x, at += 4) {
            std::uint32_t pixel;
            std::memcpy(&pixel, at, sizeof pixel);
            every &= pixel;
            differences |= againstTheByteBefore(pixel);
        }
        traits.isOpaque = traits.isOpaque && (every & kAlpha) == kAlpha;
        traits.isGrey = traits.isGrey && (differences & kGreenAndBlue) == 0;
        if (!traits.isOpaque && !traits.isGrey) break;
    }
    return traits;
}

void predictRow(Plane plane, const std::uint8_t* rgba, std::uint32_t pixelsWide,
                std::uint8_t* predicted) {
    *predicted++ = kFilterSub;
    switch (plane) {
    case Plane::RGB:
        return subtractLeft<3, 0>(rgba, pixelsWide, predicted);
    case Plane::Grey:
        return subtractLeft<1, 0>(rgba, pixelsWide, predicted);
    case Plane::Alpha:
        return subtractLeft<1, 3>(rgba, pixelsWide, predicted);
    }
}

}  // namespace utilia::platform::pdf
