#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <jpeglib.h>

#include "Tests/Support/ForeignJpeg.h"
#include "Tests/Support/SamplePictures.h"
#include "Tests/Unit/Images/BitmapFixture.h"

using namespace utilia;
using namespace utilia::platform;
using namespace utilia::test;

namespace {

struct JpegKind {
    const char* name = "";
    J_COLOR_SPACE from = JCS_RGB;      // of the samples
    J_COLOR_SPACE stored = JCS_YCbCr;  // in the file
    bool hasAdobeMark = true;          // only asked for with inks
    std::function<void(jpeg_compress_struct&)> change = [](jpeg_compress_struct&) {};
    Data exif = {};
    unsigned wide = 70;
    unsigned high = 50;
};

// Smooth, so that little is lost.
unsigned sampleAt(const JpegKind& kind, unsigned x, unsigned y, int channel) {
    switch (channel) {
    case 0:
        return x * 255 / kind.wide;
    case 1:
        return y * 255 / kind.high;
    case 2:
        return (x + y) * 255 / (kind.wide + kind.high);
    default:
        return 40 + x * 60 / kind.wide;
    }
}

Data fileOf(const JpegKind& kind) {
    return foreignJpeg([&kind](jpeg_compress_struct& info) {
        info.image_width = kind.wide;
        info.image_height = kind.high;
        info.in_color_space = kind.from;
        info.input_components = kind.from == JCS_GRAYSCALE ? 1 : kind.from == JCS_CMYK ? 4 : 3;
        jpeg_set_defaults(&info);
        jpeg_set_colorspace(&info, kind.stored);
        jpeg_set_quality(&info, 100, TRUE);
        if (!kind.hasAdobeMark) info.write_Adobe_marker = FALSE;
        kind.change(info);
        jpeg_start_compress(&info, TRUE);
        if (!kind.exif.empty()) {
            jpeg_write_marker(&info, JPEG_APP0 + 1, kind.exif.data(),
                              static_cast<unsigned>(kind.exif.size()));
        }
        std::vector<JSAMPLE> row(std::size_t{kind.wide} *
                                 static_cast<unsigned>(info.input_components));
        for (unsigned y = 0; y < kind.high; ++y) {
            for (unsigned x = 0; x < kind.wide; ++x) {
                for (int c = 0; c < info.input_components; ++c) {
                    row[std::size_t{x} * static_cast<unsigned>(info.input_components) +
                        static_cast<unsigned>(c)] = static_cast<JSAMPLE>(sampleAt(kind, x, y, c));
                }
            }
            JSAMPROW rows = row.data();
            jpeg_write_scanlines(&info, &rows, 1);
        }
    });
}

BitmapImageRep expectedOf(const JpegKind& kind) {
    return pictureOf(kind.wide, kind.high, [&kind](std::uint32_t x, std::uint32_t y) {
        const auto sample = [&](int channel) {
            const unsigned value = sampleAt(kind, x, y, kind.from == JCS_GRAYSCALE ? 0 : channel);
            if (kind.from != JCS_CMYK) return static_cast<std::uint8_t>(value);
            // Adobe's mark means that light is stored; else ink is.
            const unsigned black = sampleAt(kind, x, y, 3);
            return static_cast<std::uint8_t>(
                kind.hasAdobeMark ? value * black / 255 : (255 - value) * (255 - black) / 255);
        };
        return Pixel{sample(0), sample(1), sample(2), 255};
    });
}

std::vector<JpegKind> readableKinds() {
    const auto sampling = [](int horizontal, int vertical) {
        return [=](jpeg_compress_struct& info) {
            info.comp_info[0].h_samp_factor = horizontal;
            info.comp_info[0].v_samp_factor = vertical;
        };
    };
    const auto progressive = [](jpeg_compress_struct& info) { jpeg_simple_progression(&info); };
    return {
        {.name = "Grey", .from = JCS_GRAYSCALE, .stored = JCS_GRAYSCALE},
        {.name = "GreyProgressive",
         .from = JCS_GRAYSCALE,
         .stored = JCS_GRAYSCALE,
         .change = progressive},
        {.name = "Colour444", .change = sampling(1, 1)},
        {.name = "Colour422", .change = sampling(2, 1)},
        {.name = "Colour420", .change = sampling(2, 2)},
        {.name = "Colour440", .change = sampling(1, 2)},
        {.name = "Progressive", .change = progressive},
        {.name = "Arithmetic",
         .change = [](jpeg_compress_struct& info) { info.arith_code = TRUE; }},
        {.name = "WithRestarts",
         .change = [](jpeg_compress_struct& info) { info.restart_in_rows = 1; }},
        {.name = "RGB", .stored = JCS_RGB},
        {.name = "CMYKOfAdobe", .from = JCS_CMYK, .stored = JCS_CMYK},
        {.name = "CMYK", .from = JCS_CMYK, .stored = JCS_CMYK, .hasAdobeMark = false},
        {.name = "YCCK", .from = JCS_CMYK, .stored = JCS_YCCK},
        {.name = "YCCKProgressive", .from = JCS_CMYK, .stored = JCS_YCCK, .change = progressive},
        {.name = "OnePixel", .wide = 1, .high = 1},
    };
}

class JpegKinds : public testing::TestWithParam<JpegKind> {};
INSTANTIATE_TEST_SUITE_P(All, JpegKinds, testing::ValuesIn(readableKinds()),
                         [](const auto& one) { return std::string(one.param.name); });

TEST_P(JpegKinds, AreReadAsWritten) {
    const BitmapImageRep read = decoded(fileOf(GetParam()));
    const BitmapImageRep expected = expectedOf(GetParam());
    EXPECT_LE(largestDifference(read, expected), 12);
    EXPECT_LE(meanDifference(read, expected), 1.5);
}

// An Exif segment that tells this orientation.
Data exifOf(unsigned orientation, bool isBigEndian, unsigned type = 3, unsigned count = 1) {
    Data exif = {'E', 'x', 'i', 'f', 0, 0};
    const auto put = [&](std::uint32_t value, unsigned bytes) {
        for (unsigned i = 0; i < bytes; ++i)
            exif.push_back(
                static_cast<std::uint8_t>(value >> 8 * (isBigEndian ? bytes - 1 - i : i)));
    };
    exif.insert(exif.end(), 2, isBigEndian ? 'M' : 'I');
    put(42, 2);
    put(8, 4);
    put(2, 2);
    put(256, 2);  // a width, which nobody asks
    put(3, 2);
    put(1, 4);
    put(77, 2);
    put(0, 2);
    put(274, 2);
    put(type, 2);
    put(count, 4);
    put(orientation, 2);
    put(0, 2);
    put(0, 4);
    return exif;
}

// Where the pixel (x, y) of the upright picture is stored.
std::pair<unsigned, unsigned> storedPlace(unsigned orientation, unsigned x, unsigned y,
                                          unsigned storedWide, unsigned storedHigh) {
    switch (orientation) {
    case 2:
        return {storedWide - 1 - x, y};
    case 3:
        return {storedWide - 1 - x, storedHigh - 1 - y};
    case 4:
        return {x, storedHigh - 1 - y};
    case 5:
        return {y, x};
    case 6:
        return {y, storedHigh - 1 - x};
    case 7:
        return {storedWide - 1 - y, storedHigh - 1 - x};
    case 8:
        return {storedWide - 1 - y, x};
    default:
        return {x, y};
    }
}

TEST(JpegOrientation, IsThatOfExif) {
    for (const J_COLOR_SPACE from : {JCS_RGB, JCS_CMYK}) {
        JpegKind kind{.from = from, .stored = from == JCS_RGB ? JCS_YCbCr : JCS_CMYK};
        const BitmapImageRep stored = decoded(fileOf(kind));
        for (unsigned orientation = 1; orientation <= 8; ++orientation) {
            SCOPED_TRACE(orientation);
            kind.exif = exifOf(orientation, orientation % 2 == 0);
            const BitmapImageRep read = decoded(fileOf(kind));
            ASSERT_EQ(read.pixelsWide, orientation < 5 ? kind.wide : kind.high);
            ASSERT_EQ(read.pixelsHigh, orientation < 5 ? kind.high : kind.wide);
            for (unsigned y = 0; y < read.pixelsHigh; ++y) {
                for (unsigned x = 0; x < read.pixelsWide; ++x) {
                    const auto [sx, sy] = storedPlace(orientation, x, y, kind.wide, kind.high);
                    for (std::size_t c = 0; c < 4; ++c) {
                        ASSERT_EQ(read.rgba[(std::size_t{y} * read.pixelsWide + x) * 4 + c],
                                  stored.rgba[(std::size_t{sy} * kind.wide + sx) * 4 + c]);
                    }
                }
            }
        }
    }
}

TEST(JpegOrientation, IsUprightWhereExifMakesNoSense) {
    std::vector<Data> all = {
        exifOf(0, true),        exifOf(9, false),           exifOf(6, false, 4),
        exifOf(6, false, 3, 2), {'E', 'x', 'i', 'f', 0, 0}, {'h', 't', 't', 'p', ':', '/', '/'},
    };
    Data cut = exifOf(6, true);
    cut.resize(cut.size() - 12);
    all.push_back(cut);
    Data far = exifOf(6, true);
    far[6 + 4] = 0xff;  // its directory
    all.push_back(far);
    for (const Data& exif : all) {
        const BitmapImageRep read = decoded(fileOf({.exif = exif}));
        EXPECT_EQ(read.pixelsWide, 70u);
        EXPECT_EQ(read.pixelsHigh, 50u);
    }
}

TEST(JpegReading, StopsAtTooManyScans) {
    // The same scan again and again; each refines nothing.
    std::vector<jpeg_scan_info> scans;
    for (int i = 0; i < 3; ++i) scans.push_back({1, {i}, 0, 0, 0, 0});
    for (int i = 0; i < 60; ++i) {
        const int at = i + 1;
        scans.push_back({1, {0}, at, at, 0, 0});
        scans.push_back({1, {1}, at, at, 0, 0});
    }
    const auto withScans = [&scans](std::size_t count) {
        return fileOf({.change = [&scans, count](jpeg_compress_struct& info) {
            info.scan_info = scans.data();
            info.num_scans = static_cast<int>(count);
        }});
    };
    EXPECT_NE(Image::initWithData(withScans(100)), nullptr);
    EXPECT_EQ(Image::initWithData(withScans(101)), nullptr);
}

TEST(JpegReading, LeavesOutTheProfileOfInks) {
    Data file = fileOf({.from = JCS_CMYK, .stored = JCS_CMYK});
    Data marker = {0xff, 0xe2, 0, 0};
    const std::string name("ICC_PROFILE\0\1\1", 14);
    marker.insert(marker.end(), name.begin(), name.end());
    const Data profile = sampleProfile(344, "CMYK");
    marker.insert(marker.end(), profile.begin(), profile.end());
    marker[2] = static_cast<std::uint8_t>((marker.size() - 2) >> 8);
    marker[3] = static_cast<std::uint8_t>(marker.size() - 2);
    file.insert(file.begin() + 2, marker.begin(), marker.end());
    EXPECT_EQ(decoded(file).colourProfile, Data());
}

}  // namespace
