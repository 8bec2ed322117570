#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Common/Platform/Image.h"
#include "Tests/Unit/Images/TiffFixture.h"

using namespace utilia;
using namespace utilia::platform;
using namespace utilia::test;

namespace {

std::uint8_t toByte(double share) {
    return static_cast<std::uint8_t>(std::lround(std::clamp(share, 0.0, 1.0) * 255));
}

// What a picture of the fixture shows, worked out in real numbers.
Data expectedPixels(const TiffPicture& picture) {
    Data rgba;
    const double maximum = picture.maximum();
    const bool isRGB = picture.photometric == PHOTOMETRIC_RGB;
    for (std::uint32_t y = 0; y < picture.height; ++y) {
        for (std::uint32_t x = 0; x < picture.width; ++x) {
            const unsigned colours = isRGB ? 3 : 1;
            const bool hasAlpha =
                !picture.extraSamples.empty() && picture.extraSamples[0] != EXTRASAMPLE_UNSPECIFIED;
            const double alpha = hasAlpha ? picture.sample(x, y, colours) / maximum : 1.0;
            for (unsigned channel = 0; channel < 3; ++channel) {
                const unsigned stored = picture.sample(x, y, isRGB ? channel : 0);
                double share = stored / maximum;
                if (picture.photometric == PHOTOMETRIC_MINISWHITE) share = 1 - share;
                if (picture.photometric == PHOTOMETRIC_PALETTE) {
                    share =
                        (picture.palette[channel * (picture.palette.size() / 3) + stored] >> 8) /
                        255.0;
                }
                if (hasAlpha && picture.extraSamples[0] == EXTRASAMPLE_ASSOCALPHA) {
                    const double storedAlpha = picture.sample(x, y, colours);
                    share = storedAlpha == 0 ? 0 : stored / storedAlpha;
                }
                rgba.push_back(toByte(share));
            }
            rgba.push_back(toByte(alpha));
        }
    }
    return rgba;
}

struct Kind {
    const char* name;
    TiffPicture picture;
};

std::vector<std::uint16_t> somePalette(unsigned bits) {
    std::vector<std::uint16_t> palette;
    for (unsigned i = 0; i < 3u << bits; ++i)
        palette.push_back(static_cast<std::uint16_t>(i * 2503 + 300));
    return palette;
}

std::vector<Kind> readableKinds() {
    const std::vector<std::uint16_t> none;
    const std::vector<std::uint16_t> associated{EXTRASAMPLE_ASSOCALPHA};
    const std::vector<std::uint16_t> unassociated{EXTRASAMPLE_UNASSALPHA};
    const auto grey = [&none](std::uint16_t bits, std::uint16_t photometric) {
        return TiffPicture{
            .bits = bits, .samples = 1, .photometric = photometric, .extraSamples = none};
    };
    const auto palette = [&none](std::uint16_t bits) {
        return TiffPicture{.bits = bits,
                           .samples = 1,
                           .photometric = PHOTOMETRIC_PALETTE,
                           .extraSamples = none,
                           .palette = somePalette(bits)};
    };
    return {
        {"RGBA", {}},
        {"RGBAOneRowPerStrip", {.rowsPerStrip = 1}},
        {"RGBAOneStrip", {.rowsPerStrip = 1000}},
        {"RGBAPackBits", {.compression = COMPRESSION_PACKBITS}},
        {"RGBALZW", {.compression = COMPRESSION_LZW}},
        {"RGBALZWPredictor", {.compression = COMPRESSION_LZW, .predictor = PREDICTOR_HORIZONTAL}},
        {"RGBADeflate", {.compression = COMPRESSION_DEFLATE}},
        {"RGBAAdobeDeflatePredictor",
         {.compression = COMPRESSION_ADOBE_DEFLATE, .predictor = PREDICTOR_HORIZONTAL}},
        {"RGBAPremultiplied", {.extraSamples = associated}},
        {"RGBA16", {.bits = 16}},
        {"RGBA16Premultiplied",
         {.bits = 16, .extraSamples = associated, .compression = COMPRESSION_LZW}},
        {"RGB", {.samples = 3, .extraSamples = none}},
        {"RGB16",
         {.bits = 16,
          .samples = 3,
          .extraSamples = none,
          .compression = COMPRESSION_ADOBE_DEFLATE}},
        {"RGBWithASampleOfUnknownUse", {.extraSamples = {EXTRASAMPLE_UNSPECIFIED}}},
        {"RGBATiled", {.width = 50, .height = 37, .tile = 16}},
        {"RGBATiledDeflate",
         {.width = 50, .height = 37, .compression = COMPRESSION_ADOBE_DEFLATE, .tile = 32}},
        {"RGBA16Tiled",
         {.width = 20, .height = 37, .bits = 16, .compression = COMPRESSION_LZW, .tile = 16}},
        {"Planes", {.planes = PLANARCONFIG_SEPARATE}},
        {"Planes16LZW",
         {.bits = 16, .planes = PLANARCONFIG_SEPARATE, .compression = COMPRESSION_LZW}},
        {"PlanesRGB", {.samples = 3, .extraSamples = none, .planes = PLANARCONFIG_SEPARATE}},
        {"PlanesTiled",
         {.width = 40,
          .planes = PLANARCONFIG_SEPARATE,
          .compression = COMPRESSION_LZW,
          .tile = 16}},
        {"PlanesOfGreyAndAlpha",
         {.samples = 2, .photometric = PHOTOMETRIC_MINISBLACK, .planes = PLANARCONFIG_SEPARATE}},
        {"Grey1", grey(1, PHOTOMETRIC_MINISBLACK)},
        {"Grey1WhiteIsZero", grey(1, PHOTOMETRIC_MINISWHITE)},
        {"Grey2", grey(2, PHOTOMETRIC_MINISBLACK)},
        {"Grey4", grey(4, PHOTOMETRIC_MINISBLACK)},
        {"Grey8", grey(8, PHOTOMETRIC_MINISBLACK)},
        {"Grey8WhiteIsZero", grey(8, PHOTOMETRIC_MINISWHITE)},
        {"Grey16", grey(16, PHOTOMETRIC_MINISBLACK)},
        {"GreyAlpha",
         {.samples = 2, .photometric = PHOTOMETRIC_MINISBLACK, .extraSamples = unassociated}},
        {"GreyAlphaPremultiplied",
         {.samples = 2, .photometric = PHOTOMETRIC_MINISBLACK, .extraSamples = associated}},
        {"Palette1", palette(1)},
        {"Palette4", palette(4)},
        {"Palette8", palette(8)},
    };
}

class ImageKinds : public testing::TestWithParam<Kind> {};

TEST_P(ImageKinds, AreReadAsWritten) {
    const TiffPicture& picture = GetParam().picture;
    const auto image = Image::initWithData(makeTiff({picture}));
    ASSERT_NE(image, nullptr);
    EXPECT_TRUE(image->isValid());
    EXPECT_FALSE(image->isTemplate());
    EXPECT_EQ(image->pixelsWide(), picture.width);
    EXPECT_EQ(image->pixelsHigh(), picture.height);
    const auto pixels = image->representation(0);
    ASSERT_TRUE(pixels) << pixels.error().description;

    const Data expected = expectedPixels(picture);
    ASSERT_EQ(pixels->rgba.size(), expected.size());
    // Planes are brought to 8 bits one by one, so what is divided by alpha afterwards may be one
    // off.
    const int tolerance = picture.planes == PLANARCONFIG_SEPARATE ? 1 : 0;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        ASSERT_NEAR(pixels->rgba[i], expected[i], tolerance) << "byte " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(All, ImageKinds, testing::ValuesIn(readableKinds()),
                         [](const auto& one) { return std::string(one.param.name); });

TEST(ImageReading, DividesPlanesByAssociatedAlpha) {
    TiffPicture picture{.width = 2,
                        .height = 1,
                        .extraSamples = {EXTRASAMPLE_ASSOCALPHA},
                        .planes = PLANARCONFIG_SEPARATE};
    picture.sampleAt = [](std::uint32_t x, std::uint32_t, unsigned sample) {
        const unsigned pixels[2][4] = {{64, 128, 0, 128}, {0, 0, 0, 0}};
        return pixels[x][sample];
    };
    const auto pixels = Image::initWithData(makeTiff({picture}))->representation(0);
    ASSERT_TRUE(pixels);
    EXPECT_EQ(pixels->rgba, (Data{128, 255, 0, 128, 0, 0, 0, 0}));
}

TEST(ImageReading, TakesPalettesOfEightBitEntries) {
    TiffPicture picture{.width = 2,
                        .height = 1,
                        .bits = 1,
                        .samples = 1,
                        .photometric = PHOTOMETRIC_PALETTE,
                        .extraSamples = {}};
    picture.palette = {10, 200, 20, 210, 30, 220};
    picture.sampleAt = [](std::uint32_t x, std::uint32_t, unsigned) { return x; };
    const auto pixels = Image::initWithData(makeTiff({picture}))->representation(0);
    ASSERT_TRUE(pixels);
    EXPECT_EQ(pixels->rgba, (Data{10, 20, 30, 255, 200, 210, 220, 255}));
}

TEST(ImageReading, BringsEveryOrientationUpright) {
    // The upright picture is 1 2 3 over 4 5 6; the rows of each line are how a file of that
    // orientation keeps it.
    struct Stored {
        std::uint16_t orientation;
        std::vector<std::vector<unsigned>> rows;
    };
    const std::vector<Stored> all = {
        {ORIENTATION_TOPLEFT, {{1, 2, 3}, {4, 5, 6}}},
        {ORIENTATION_TOPRIGHT, {{3, 2, 1}, {6, 5, 4}}},
        {ORIENTATION_BOTRIGHT, {{6, 5, 4}, {3, 2, 1}}},
        {ORIENTATION_BOTLEFT, {{4, 5, 6}, {1, 2, 3}}},
        {ORIENTATION_LEFTTOP, {{1, 4}, {2, 5}, {3, 6}}},
        {ORIENTATION_RIGHTTOP, {{3, 6}, {2, 5}, {1, 4}}},
        {ORIENTATION_RIGHTBOT, {{6, 3}, {5, 2}, {4, 1}}},
        {ORIENTATION_LEFTBOT, {{4, 1}, {5, 2}, {6, 3}}},
    };
    for (const Stored& stored : all) {
        SCOPED_TRACE(stored.orientation);
        TiffPicture picture{
            .samples = 1, .photometric = PHOTOMETRIC_MINISBLACK, .extraSamples = {}};
        picture.width = static_cast<std::uint32_t>(stored.rows[0].size());
        picture.height = static_cast<std::uint32_t>(stored.rows.size());
        picture.orientation = stored.orientation;
        picture.sampleAt = [&](std::uint32_t x, std::uint32_t y, unsigned) {
            return stored.rows[y][x];
        };
        const auto image = Image::initWithData(makeTiff({picture}));
        ASSERT_NE(image, nullptr);
        EXPECT_EQ(image->pixelsWide(), 3u);
        EXPECT_EQ(image->pixelsHigh(), 2u);
        const auto pixels = image->representation(0);
        ASSERT_TRUE(pixels);
        std::vector<int> seen;
        for (std::size_t i = 0; i < pixels->rgba.size(); i += 4) seen.push_back(pixels->rgba[i]);
        EXPECT_EQ(seen, (std::vector<int>{1, 2, 3, 4, 5, 6}));
    }
}

TEST(ImageReading, MakesOneRepresentationForEachDirectory) {
    const TiffPicture small{.width = 16, .height = 16};
    const TiffPicture large{.width = 32, .height = 40, .compression = COMPRESSION_LZW};
    const TiffPicture grey{.width = 8,
                           .height = 8,
                           .samples = 1,
                           .photometric = PHOTOMETRIC_MINISBLACK,
                           .extraSamples = {}};
    const auto image = Image::initWithData(makeTiff({small, large, grey}));
    ASSERT_NE(image, nullptr);
    ASSERT_EQ(image->representationCount(), 3u);
    EXPECT_EQ(image->pixelsWide(), 32u);
    EXPECT_EQ(image->pixelsHigh(), 40u);
    EXPECT_EQ(image->representation(0)->rgba, expectedPixels(small));
    EXPECT_EQ(image->representation(1)->rgba, expectedPixels(large));
    EXPECT_EQ(image->representation(2)->rgba, expectedPixels(grey));
    EXPECT_FALSE(image->representation(3));
}

TEST(ImageReading, LeavesOutLaterDirectoriesOfKindsThatAreNotRead) {
    const TiffPicture readable{.width = 16, .height = 16};
    const TiffPicture cmyk{.photometric = PHOTOMETRIC_SEPARATED, .extraSamples = {}};
    const auto image = Image::initWithData(makeTiff({readable, cmyk, readable}));
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(image->representationCount(), 2u);
    EXPECT_EQ(image->representation(1)->rgba, expectedPixels(readable));
}

TEST(ImageReading, TakesTheFirstDirectoriesUpToTheLimit) {
    const TiffPicture tiny{.width = 2, .height = 2};
    const auto most =
        Image::initWithData(makeTiff(std::vector(kImageMaximumRepresentations, tiny)));
    ASSERT_NE(most, nullptr);
    EXPECT_EQ(most->representationCount(), kImageMaximumRepresentations);
    const auto more =
        Image::initWithData(makeTiff(std::vector(kImageMaximumRepresentations + 8, tiny)));
    ASSERT_NE(more, nullptr);
    EXPECT_EQ(more->representationCount(), kImageMaximumRepresentations);
    EXPECT_EQ(more->representation(0)->rgba, most->representation(0)->rgba);
    EXPECT_TRUE(more->representationUsingType(0, BitmapImageFileType::Tiff));
}

Data bytesOf(std::string_view text) { return Data(text.begin(), text.end()); }

TEST(ImageReading, RefusesWhatIsNoImage) {
    const std::vector<std::pair<const char*, Data>> refused = {
        {"nothing", {}},
        {"one byte", {0x49}},
        {"text", bytesOf("This is a text and no image at all.")},
        {"a PNG header", bytesOf("\x89PNG\r\n\x1a\n and so on")},
        {"a TIFF header alone", {'I', 'I', 42, 0, 8, 0, 0, 0}},
        {"an empty directory", {'I', 'I', 42, 0, 8, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
        {"a directory past the end", {'I', 'I', 42, 0, 0xf0, 0xff, 0xff, 0xff}},
        {"CMYK", makeTiff({{.photometric = PHOTOMETRIC_SEPARATED, .extraSamples = {}}})},
        {"JPEG inside", makeTiff({{.width = 16,
                                   .height = 16,
                                   .samples = 3,
                                   .extraSamples = {},
                                   .compression = COMPRESSION_JPEG,
                                   .rowsPerStrip = 16}})},
        {"fax", makeTiff({{.bits = 1,
                           .samples = 1,
                           .photometric = PHOTOMETRIC_MINISWHITE,
                           .extraSamples = {},
                           .compression = COMPRESSION_CCITTFAX4}})},
        {"too many samples", makeTiff({{.samples = 9, .extraSamples = {0, 0, 0, 0, 0, 0}}})},
        {"16-bit palette", makeTiff({{.bits = 16,
                                      .samples = 1,
                                      .photometric = PHOTOMETRIC_PALETTE,
                                      .extraSamples = {},
                                      .palette = somePalette(16)}})},
        {"a side beyond the limit", makeTiff({{.width = kImageMaximumSide + 1,
                                               .height = 1,
                                               .samples = 1,
                                               .photometric = PHOTOMETRIC_MINISBLACK,
                                               .extraSamples = {}}})},
    };
    for (const auto& [name, bytes] : refused)
        EXPECT_EQ(Image::initWithData(bytes), nullptr) << name;
}

TEST(ImageReading, RefusesAFileWhoseFirstDirectoryCannotBeDecoded) {
    for (const std::uint16_t compression : std::initializer_list<std::uint16_t>{
             COMPRESSION_NONE, COMPRESSION_LZW, COMPRESSION_ADOBE_DEFLATE}) {
        SCOPED_TRACE(compression);
        const Data file = makeTiff({{.compression = compression, .rowsPerStrip = 1000}, {}});
        ASSERT_NE(Image::initWithData(file), nullptr);
        // The strip of the first directory lies past the end, or is shorter than its rows need
        // (libtiff works the length of bare rows out itself).
        const auto past = static_cast<std::uint32_t>(file.size() - 2);
        EXPECT_EQ(Image::initWithData(withEntry(file, TIFFTAG_STRIPOFFSETS, past)), nullptr);
        if (compression != COMPRESSION_NONE) {
            EXPECT_EQ(Image::initWithData(withEntry(file, TIFFTAG_STRIPBYTECOUNTS, 5)), nullptr);
        }
    }
}

TEST(ImageReading, FindsDamageOfALaterDirectoryWhenItsPixelsAreAskedFor) {
    const Data file = makeTiff({{.width = 16, .height = 16},
                                {.width = 16,
                                 .height = 16,
                                 .compression = COMPRESSION_ADOBE_DEFLATE,
                                 .rowsPerStrip = 16}});
    const auto image = Image::initWithData(withEntry(file, TIFFTAG_STRIPBYTECOUNTS, 5, 1));
    ASSERT_NE(image, nullptr);
    ASSERT_EQ(image->representationCount(), 2u);
    EXPECT_TRUE(image->representation(0));
    const auto damaged = image->representation(1);
    ASSERT_FALSE(damaged);
    EXPECT_TRUE(damaged.error().is(UtiliaErrorCode::Refused));
    EXPECT_TRUE(damaged.error().description.starts_with("decode image: "))
        << damaged.error().description;
}

}  // namespace
