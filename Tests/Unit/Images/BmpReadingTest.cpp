#include <array>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Tests/Support/SamplePictures.h"
#include "Tests/Unit/Images/BitmapFixture.h"

using namespace utilia;
using namespace utilia::platform;
using namespace utilia::test;

namespace {

using Bytes = std::vector<std::uint8_t>;

void put(Data& to, std::uint32_t value, unsigned bytes) {
    for (unsigned i = 0; i < bytes; ++i)
        to.push_back(static_cast<std::uint8_t>(std::uint64_t{value} >> 8 * i));
}

// A BMP file in its parts.
struct BmpFile {
    std::uint32_t headerSize = 40;
    std::int32_t wide = 5;
    std::int32_t high = 3;
    std::uint32_t bits = 24;
    std::uint32_t compression = 0;
    std::vector<std::uint32_t> masks = {};                  // red, green, blue, alpha
    std::vector<std::array<std::uint8_t, 3>> palette = {};  // RGB
    std::uint32_t coloursTold = 0;
    Data pixels = {};
    std::uint32_t pixelsAt = 1;  // 0 leaves it to the reader, 1 tells the truth

    Data bytes() const {
        Data info;
        put(info, headerSize, 4);
        if (headerSize == 12) {
            put(info, static_cast<std::uint32_t>(wide), 2);
            put(info, static_cast<std::uint32_t>(high), 2);
            put(info, 1, 2);
            put(info, bits, 2);
        } else {
            put(info, static_cast<std::uint32_t>(wide), 4);
            put(info, static_cast<std::uint32_t>(high), 4);
            put(info, 1, 2);
            put(info, bits, 2);
            put(info, compression, 4);
            put(info, 0, 4);
            put(info, 0, 8);
            put(info, coloursTold, 4);
            put(info, 0, 4);
            if (headerSize > 40)
                for (const std::uint32_t mask : masks) put(info, mask, 4);
            info.resize(headerSize);
        }
        if (headerSize == 40)
            for (const std::uint32_t mask : masks) put(info, mask, 4);
        for (const auto& [red, green, blue] : palette) {
            info.insert(info.end(), {blue, green, red});
            if (headerSize != 12) info.push_back(0);
        }
        Data file = {'B', 'M'};
        put(file, static_cast<std::uint32_t>(14 + info.size() + pixels.size()), 4);
        put(file, 0, 4);
        put(file, pixelsAt == 1 ? static_cast<std::uint32_t>(14 + info.size()) : pixelsAt, 4);
        file.insert(file.end(), info.begin(), info.end());
        file.insert(file.end(), pixels.begin(), pixels.end());
        return file;
    }
};

unsigned valueAt(std::uint32_t x, std::uint32_t y, unsigned channel, unsigned maximum) {
    return (x * 53 + y * 101 + channel * 29 + x * y) & maximum;
}

// Rows of values of so many bits each, padded to four bytes, from the bottom.
template <class Value>  // std::uint32_t(x, y)
Data rowsOf(const BmpFile& file, Value value) {
    Data rows;
    const auto high = static_cast<std::uint32_t>(std::abs(file.high));
    for (std::uint32_t i = 0; i < high; ++i) {
        const std::uint32_t y = file.high < 0 ? i : high - 1 - i;
        Data row;
        unsigned filled = 0;
        for (std::uint32_t x = 0; x < static_cast<std::uint32_t>(file.wide); ++x) {
            if (file.bits >= 8) {
                put(row, static_cast<std::uint32_t>(value(x, y)), file.bits / 8);
                continue;
            }
            if (filled == 0) row.push_back(0);
            filled += file.bits;
            row.back() = static_cast<std::uint8_t>(row.back() | value(x, y) << (8 - filled));
            filled %= 8;
        }
        while (row.size() % 4) row.push_back(0xee);
        rows.insert(rows.end(), row.begin(), row.end());
    }
    return rows;
}

std::vector<std::array<std::uint8_t, 3>> paletteOf(unsigned count) {
    std::vector<std::array<std::uint8_t, 3>> palette;
    for (unsigned i = 0; i < count; ++i) {
        palette.push_back({static_cast<std::uint8_t>(i * 77), static_cast<std::uint8_t>(255 - i),
                           static_cast<std::uint8_t>(i * 13)});
    }
    return palette;
}

BitmapImageRep indexedPicture(const BmpFile& file) {
    const auto high = static_cast<std::uint32_t>(std::abs(file.high));
    return pictureOf(static_cast<std::uint32_t>(file.wide), high,
                     [&file](std::uint32_t x, std::uint32_t y) {
                         const unsigned index = valueAt(x, y, 0, (1u << file.bits) - 1);
                         if (index >= file.palette.size()) return Pixel{0, 0, 0, 255};
                         const auto& [red, green, blue] = file.palette[index];
                         return Pixel{red, green, blue, 255};
                     });
}

TEST(BmpReading, TakesIndicesUnderEveryHeader) {
    for (const std::uint32_t header : {12u, 16u, 40u, 52u, 56u, 64u, 108u, 124u}) {
        for (const std::uint32_t bits : {1u, 2u, 4u, 8u}) {
            for (const std::int32_t high : {3, -3}) {
                if (header == 12 && high < 0) continue;
                SCOPED_TRACE(std::to_string(header) + " " + std::to_string(bits));
                BmpFile file{.headerSize = header, .wide = 13, .high = high, .bits = bits};
                file.palette = paletteOf(1u << bits);
                file.pixels = rowsOf(file, [bits](std::uint32_t x, std::uint32_t y) {
                    return valueAt(x, y, 0, (1u << bits) - 1);
                });
                ASSERT_EQ(largestDifference(decoded(file.bytes()), indexedPicture(file)), 0);
                file.pixelsAt = 0;
                ASSERT_EQ(largestDifference(decoded(file.bytes()), indexedPicture(file)), 0);
            }
        }
    }
}

TEST(BmpReading, TakesFewerColoursThanBits) {
    BmpFile file{.bits = 8, .palette = paletteOf(7), .coloursTold = 7};
    file.pixels =
        rowsOf(file, [](std::uint32_t x, std::uint32_t y) { return valueAt(x, y, 0, 255); });
    EXPECT_EQ(largestDifference(decoded(file.bytes()), indexedPicture(file)), 0);
    // More told than there are: the pixels begin where the file says.
    file.coloursTold = 256;
    EXPECT_EQ(largestDifference(decoded(file.bytes()), indexedPicture(file)), 0);
    file.coloursTold = 0xffffffff;
    EXPECT_EQ(largestDifference(decoded(file.bytes()), indexedPicture(file)), 0);
}

TEST(BmpReading, TakesPlainColours) {
    for (const std::uint32_t header : {12u, 40u, 64u, 124u}) {
        for (const std::uint32_t bits : {24u, 32u}) {
            BmpFile file{.headerSize = header, .bits = bits};
            file.pixels = rowsOf(file, [](std::uint32_t x, std::uint32_t y) {
                // The fourth byte means nothing.
                return valueAt(x, y, 0, 255) << 16 | valueAt(x, y, 1, 255) << 8 |
                       valueAt(x, y, 2, 255) | 0x55000000;
            });
            const auto expected = pictureOf(5, 3, [](std::uint32_t x, std::uint32_t y) {
                const auto byte = [&](unsigned channel) {
                    return static_cast<std::uint8_t>(valueAt(x, y, channel, 255));
                };
                return Pixel{byte(0), byte(1), byte(2), 255};
            });
            EXPECT_EQ(largestDifference(decoded(file.bytes()), expected), 0)
                << header << " " << bits;
        }
    }
}

struct MaskKind {
    std::uint32_t header;
    std::uint32_t bits;
    std::uint32_t compression;
    std::vector<std::uint32_t> masks;  // as they count
    bool areTold = true;
};

TEST(BmpReading, TakesColoursByTheirMasks) {
    const std::vector<MaskKind> kinds = {
        {40, 16, 0, {0x7c00, 0x3e0, 0x1f}, false},
        {12, 16, 0, {0x7c00, 0x3e0, 0x1f}, false},
        {40, 16, 3, {0xf800, 0x7e0, 0x1f}},
        {40, 16, 6, {0xf00, 0xf0, 0xf, 0xf000}},
        {52, 16, 3, {0xf800, 0x7e0, 0x1f}},
        {56, 16, 3, {0x7c00, 0x3e0, 0x1f, 0x8000}},
        {40, 32, 3, {0xff, 0xff00, 0xff0000}},
        {56, 32, 3, {0xff0000, 0xff00, 0xff, 0xff000000}},
        {108, 32, 3, {0x3ff00000, 0xffc00, 0x3ff, 0xc0000000}},
        {124, 32, 3, {0xff0000, 0xff00, 0xff, 0xff000000}},
        {124, 32, 3, {0x1, 0xfe, 0xffff00, 0x7f000000}},
    };
    for (const MaskKind& kind : kinds) {
        SCOPED_TRACE(std::to_string(kind.header) + " " + std::to_string(kind.bits) + " " +
                     std::to_string(kind.compression));
        BmpFile file{.headerSize = kind.header, .bits = kind.bits, .compression = kind.compression};
        if (kind.areTold) file.masks = kind.masks;
        const std::uint32_t all = kind.bits == 32 ? 0xffffffff : 0xffff;
        const auto pixel = [all](std::uint32_t x, std::uint32_t y) {
            return (x * 2654435761u + y * 40503u * 65537u + 0x12345678) & all;
        };
        file.pixels = rowsOf(file, pixel);
        const auto expected = pictureOf(5, 3, [&](std::uint32_t x, std::uint32_t y) {
            std::array<std::uint8_t, 4> rgba = {0, 0, 0, 255};
            for (std::size_t c = 0; c < kind.masks.size(); ++c) {
                const std::uint32_t mask = kind.masks[c], low = mask & ~(mask - 1);
                const double share = static_cast<double>((pixel(x, y) & mask) / low) / (mask / low);
                rgba[c] = static_cast<std::uint8_t>(share * 255 + 0.5);
            }
            return Pixel{rgba[0], rgba[1], rgba[2], rgba[3]};
        });
        EXPECT_EQ(largestDifference(decoded(file.bytes()), expected), 0);
    }
}

TEST(BmpReading, TakesAlphaThatIsNowhereAsNone) {
    BmpFile file{.headerSize = 56,
                 .bits = 32,
                 .compression = 3,
                 .masks = {0xff0000, 0xff00, 0xff, 0xff000000}};
    file.pixels = rowsOf(file, [](std::uint32_t, std::uint32_t) { return 0x00102030; });
    EXPECT_EQ(decoded(file.bytes()).rgba[3], 255);
    file.pixels[3] = 1;
    EXPECT_EQ(decoded(file.bytes()).rgba[3], 0) << "one pixel uses it";
}

// The palette of the packed files below: 0 is dark, and so on.
BitmapImageRep shown(std::uint32_t wide, std::uint32_t high, const std::string& rows) {
    return pictureOf(wide, high, [&](std::uint32_t x, std::uint32_t y) {
        const char index = rows[std::size_t{y} * wide + x];
        if (index == '.') return Pixel{0, 0, 0, 0};
        const auto colour = paletteOf(16)[static_cast<std::size_t>(index - '0')];
        return Pixel{colour[0], colour[1], colour[2], 255};
    });
}

TEST(BmpReading, UndoesRunsOfBytes) {
    BmpFile file{.wide = 6,
                 .high = 3,
                 .bits = 8,
                 .compression = 1,
                 .palette = paletteOf(16),
                 .coloursTold = 16};
    file.pixels = {6, 1, 0, 0, 0, 4, 2, 3, 4, 5, 2, 6, 0, 0, 0, 3, 7, 8, 9, 0xee, 3, 0, 0, 1};
    EXPECT_EQ(largestDifference(decoded(file.bytes()), shown(6, 3,
                                                             "789000"
                                                             "234566"
                                                             "111111")),
              0);
    file.high = -3;
    EXPECT_EQ(largestDifference(decoded(file.bytes()), shown(6, 3,
                                                             "111111"
                                                             "234566"
                                                             "789000")),
              0);
    file.high = 3;
    // Skips, short rows, runs beyond the row, and an early end.
    file.pixels = {2, 1, 0, 2, 2, 0, 9, 2, 0, 0, 1, 3, 0, 2, 1, 1, 1, 4, 0, 1};
    EXPECT_EQ(largestDifference(decoded(file.bytes()), shown(6, 3,
                                                             "..4..."
                                                             "3....."
                                                             "11..22")),
              0);
    // The end of the last row may be missing.
    file.pixels = {6, 1, 0, 0, 6, 2, 0, 0, 6, 3};
    EXPECT_EQ(largestDifference(decoded(file.bytes()), shown(6, 3,
                                                             "333333"
                                                             "222222"
                                                             "111111")),
              0);
    file.pixels.resize(8);
    EXPECT_EQ(Image::initWithData(file.bytes()), nullptr);
}

TEST(BmpReading, UndoesRunsOfHalfBytes) {
    BmpFile file{.wide = 6, .high = 2, .bits = 4, .compression = 2, .palette = paletteOf(16)};
    file.pixels = {5, 0x12, 1, 0x30, 0, 0, 0, 5, 0x45, 0x67, 0x80, 0xee, 1, 0x90, 0, 1};
    EXPECT_EQ(largestDifference(decoded(file.bytes()), shown(6, 2,
                                                             "456789"
                                                             "121213")),
              0);
}

TEST(BmpReading, UndoesRunsOfColours) {
    BmpFile file{.headerSize = 64, .wide = 4, .high = 2, .bits = 24, .compression = 4};
    file.pixels = {4, 3, 2, 1, 0, 0, 0, 3, 6, 5, 4, 9, 8, 7, 12, 11, 10, 0xee, 1, 15, 14, 13, 0, 1};
    const Data expected = {4, 5, 6, 255, 7, 8, 9, 255, 10, 11, 12, 255, 13, 14, 15, 255,
                           1, 2, 3, 255, 1, 2, 3, 255, 1,  2,  3,  255, 1,  2,  3,  255};
    EXPECT_EQ(decoded(file.bytes()).rgba, expected);
}

TEST(BmpReading, RefusesWhatMakesNoSense) {
    BmpFile plain;
    plain.pixels = rowsOf(plain, [](std::uint32_t, std::uint32_t) { return 0u; });
    ASSERT_NE(Image::initWithData(plain.bytes()), nullptr);
    const auto refuses = [](const BmpFile& file) {
        return Image::initWithData(file.bytes()) == nullptr;
    };
    const auto with = [&plain](auto change) {
        BmpFile file = plain;
        change(file);
        return file;
    };
    EXPECT_TRUE(refuses(with([](BmpFile& f) { f.wide = 0; })));
    EXPECT_TRUE(refuses(with([](BmpFile& f) { f.wide = -5; })));
    EXPECT_TRUE(refuses(with([](BmpFile& f) { f.high = 0; })));
    EXPECT_TRUE(refuses(with([](BmpFile& f) { f.high = 4; })));
    EXPECT_TRUE(refuses(with([](BmpFile& f) { f.high = INT32_MIN; })));
    EXPECT_TRUE(refuses(with([](BmpFile& f) { f.wide = INT32_MAX; })));
    EXPECT_TRUE(refuses(with([](BmpFile& f) { f.bits = 0; })));
    EXPECT_TRUE(refuses(with([](BmpFile& f) { f.bits = 3; })));
    EXPECT_TRUE(refuses(with([](BmpFile& f) { f.bits = 64; })));
    EXPECT_TRUE(refuses(with([](BmpFile& f) { f.headerSize = 13; })));
    EXPECT_TRUE(refuses(with([](BmpFile& f) { f.headerSize = 128; })));
    EXPECT_TRUE(refuses(with([](BmpFile& f) { f.compression = 1; }))) << "of 24 bits";
    EXPECT_TRUE(refuses(with([](BmpFile& f) { f.compression = 4; }))) << "JPEG";
    EXPECT_TRUE(refuses(with([](BmpFile& f) { f.compression = 5; }))) << "PNG";
    EXPECT_TRUE(refuses(with([](BmpFile& f) { f.pixelsAt = 0xffffffff; })));
    EXPECT_TRUE(refuses(with([](BmpFile& f) { f.pixels.resize(f.pixels.size() - 5); })));
    BmpFile masks{.bits = 16, .compression = 3, .masks = {0xf00f, 0xf0, 0x0}};
    masks.pixels = rowsOf(masks, [](std::uint32_t, std::uint32_t) { return 0u; });
    EXPECT_TRUE(refuses(masks)) << "scattered";
    masks.masks = {0, 0, 0};
    EXPECT_TRUE(refuses(masks)) << "empty";
}

TEST(BmpReading, LetsThePaddingOfTheLastRowBeMissing) {
    BmpFile file;
    file.pixels = rowsOf(file, [](std::uint32_t, std::uint32_t) { return 0x010203u; });
    file.pixels.pop_back();
    EXPECT_NE(Image::initWithData(file.bytes()), nullptr);
}

}  // namespace
