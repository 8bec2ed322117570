#include <cmath>
#include <csetjmp>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <png.h>

#include "Tests/Support/ForeignPng.h"
#include "Tests/Unit/Images/BitmapFixture.h"

using namespace utilia;
using namespace utilia::platform;
using namespace utilia::test;

namespace {

// A PNG file as a stranger might write it; samples differ everywhere and use all bits.
struct PngKind {
    int colour = PNG_COLOR_TYPE_RGB;
    int bits = 8;
    bool isInterlaced = false;
    bool hasTransparentColour = false;
    png_uint_32 wide = 37;
    png_uint_32 high = 19;

    unsigned channels() const {
        return (colour & PNG_COLOR_MASK_PALETTE) ? 1u
                                                 : ((colour & PNG_COLOR_MASK_COLOR) ? 3u : 1u) +
                                                       ((colour & PNG_COLOR_MASK_ALPHA) ? 1u : 0u);
    }
    unsigned maximum() const { return (1u << bits) - 1; }
    unsigned sample(png_uint_32 x, png_uint_32 y, unsigned channel) const {
        return (x * 7919 + y * 104729 + channel * 1299709 + (x * y) % 251) & maximum();
    }
    bool isTransparent(png_uint_32 x, png_uint_32 y) const {
        if (!hasTransparentColour) return false;
        if (colour & PNG_COLOR_MASK_PALETTE) return sample(x, y, 0) == 1;
        for (unsigned c = 0; c < channels(); ++c) {
            if (sample(x, y, c) != sample(3, 4, c)) return false;
        }
        return true;
    }
};

png_color paletteEntry(unsigned index) {
    return {static_cast<png_byte>(index * 37 + 5), static_cast<png_byte>(index * 91),
            static_cast<png_byte>(255 - index)};
}

std::vector<png_byte> rowOf(const PngKind& kind, png_uint_32 y) {
    std::vector<png_byte> row(
        (std::size_t{kind.wide} * kind.channels() * static_cast<unsigned>(kind.bits) + 7) / 8);
    std::size_t at = 0;  // in bits
    for (png_uint_32 x = 0; x < kind.wide; ++x) {
        for (unsigned c = 0; c < kind.channels(); ++c, at += static_cast<unsigned>(kind.bits)) {
            const unsigned value = kind.sample(x, y, c);
            if (kind.bits == 16) {
                row[at / 8] = static_cast<png_byte>(value >> 8);
                row[at / 8 + 1] = static_cast<png_byte>(value);
            } else {
                row[at / 8] = static_cast<png_byte>(
                    row[at / 8] | value << (8 - static_cast<unsigned>(kind.bits) - at % 8));
            }
        }
    }
    return row;
}

Data fileOf(const PngKind& kind) {
    return foreignPng([&kind](png_structp png, png_infop info) {
        png_set_IHDR(png, info, kind.wide, kind.high, kind.bits, kind.colour,
                     kind.isInterlaced ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE,
                     PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
        std::vector<png_color> palette;
        if (kind.colour & PNG_COLOR_MASK_PALETTE) {
            for (unsigned i = 0; i <= kind.maximum(); ++i) palette.push_back(paletteEntry(i));
            png_set_PLTE(png, info, palette.data(), static_cast<int>(palette.size()));
        }
        if (kind.hasTransparentColour) {
            png_color_16 colour{};
            colour.gray = static_cast<png_uint_16>(kind.sample(3, 4, 0));
            colour.red = static_cast<png_uint_16>(kind.sample(3, 4, 0));
            colour.green = static_cast<png_uint_16>(kind.sample(3, 4, 1));
            colour.blue = static_cast<png_uint_16>(kind.sample(3, 4, 2));
            const png_byte alphas[2] = {255, 0};
            png_set_tRNS(png, info, alphas, (kind.colour & PNG_COLOR_MASK_PALETTE) ? 2 : 0,
                         &colour);
        }
        png_write_info(png, info);
        std::vector<std::vector<png_byte>> rows;
        std::vector<png_bytep> pointers;
        for (png_uint_32 y = 0; y < kind.high; ++y) rows.push_back(rowOf(kind, y));
        for (auto& row : rows) pointers.push_back(row.data());
        png_write_image(png, pointers.data());
    });
}

BitmapImageRep expectedOf(const PngKind& kind) {
    BitmapImageRep bitmap{kind.wide, kind.high, {}};
    const auto byte = [&kind](unsigned value) {
        return static_cast<std::uint8_t>(std::lround(value * 255.0 / kind.maximum()));
    };
    for (png_uint_32 y = 0; y < kind.high; ++y) {
        for (png_uint_32 x = 0; x < kind.wide; ++x) {
            const bool isGrey = !(kind.colour & PNG_COLOR_MASK_COLOR);
            if (kind.colour & PNG_COLOR_MASK_PALETTE) {
                const png_color colour = paletteEntry(kind.sample(x, y, 0));
                bitmap.rgba.insert(bitmap.rgba.end(), {colour.red, colour.green, colour.blue});
            } else {
                for (unsigned c = 0; c < 3; ++c)
                    bitmap.rgba.push_back(byte(kind.sample(x, y, isGrey ? 0 : c)));
            }
            const bool hasAlpha = kind.colour & PNG_COLOR_MASK_ALPHA;
            bitmap.rgba.push_back(hasAlpha ? byte(kind.sample(x, y, isGrey ? 1 : 3))
                                  : kind.isTransparent(x, y) ? std::uint8_t{0}
                                                             : std::uint8_t{255});
        }
    }
    return bitmap;
}

std::vector<PngKind> allKinds() {
    std::vector<PngKind> kinds;
    for (const bool isInterlaced : {false, true}) {
        for (const int bits : {1, 2, 4, 8, 16}) {
            for (const bool hasColour : {false, true}) {
                kinds.push_back({PNG_COLOR_TYPE_GRAY, bits, isInterlaced, hasColour});
                if (bits <= 8)
                    kinds.push_back({PNG_COLOR_TYPE_PALETTE, bits, isInterlaced, hasColour});
                if (bits >= 8) kinds.push_back({PNG_COLOR_TYPE_RGB, bits, isInterlaced, hasColour});
            }
            if (bits >= 8) {
                kinds.push_back({PNG_COLOR_TYPE_GRAY_ALPHA, bits, isInterlaced});
                kinds.push_back({PNG_COLOR_TYPE_RGB_ALPHA, bits, isInterlaced});
            }
        }
    }
    return kinds;
}

std::string nameOf(const testing::TestParamInfo<PngKind>& one) {
    const PngKind& kind = one.param;
    return "Colour" + std::to_string(kind.colour) + "Bits" + std::to_string(kind.bits) +
           (kind.isInterlaced ? "Interlaced" : "") +
           (kind.hasTransparentColour ? "WithTransparentColour" : "");
}

class PngKinds : public testing::TestWithParam<PngKind> {};
INSTANTIATE_TEST_SUITE_P(All, PngKinds, testing::ValuesIn(allKinds()), nameOf);

TEST_P(PngKinds, AreReadAsWritten) {
    const BitmapImageRep read = decoded(fileOf(GetParam()));
    EXPECT_EQ(largestDifference(read, expectedOf(GetParam())), 0);
}

TEST_P(PngKinds, OfOnePixelAreRead) {
    PngKind kind = GetParam();
    kind.wide = kind.high = 1;
    EXPECT_EQ(largestDifference(decoded(fileOf(kind)), expectedOf(kind)), 0);
}

TEST(PngReading, RefusesACheckSumThatDoesNotFit) {
    Data file = fileOf({});
    const std::string text(file.begin(), file.end());
    file[text.find("IDAT") + 20] ^= 1;
    EXPECT_EQ(Image::initWithData(file), nullptr);
}

}  // namespace
