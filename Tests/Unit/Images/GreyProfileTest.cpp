#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Common/UtiliaCommon/Auxiliary/ImageExport.h"
#include "Tests/Support/SamplePictures.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Unit/Images/BitmapFixture.h"

using namespace utilia;
using namespace utilia::platform;
using namespace utilia::test;
using testing::HasSubstr;
using testing::Not;

// Pictures with a profile of grey: it says nothing about RGB, so they are written in grey.

namespace {

// A small profile that colour management takes: gamma 2.2, the white of ICC.1.
Data greyProfile() {
    Data profile;
    const auto number = [&profile](std::size_t value, int bytes = 4) {
        for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8)
            profile.push_back(static_cast<std::uint8_t>(value >> shift));
    };
    const auto text = [&profile](std::string_view letters) {
        profile.insert(profile.end(), letters.begin(), letters.end());
    };
    const auto fill = [&profile](std::size_t size) { profile.resize(size); };
    number(344);
    fill(8);
    number(0x02100000);
    text("mntrGRAYXYZ ");
    fill(36);
    text("acsp");
    fill(68);
    number(0xf6d6), number(0x10000), number(0xd32d);
    fill(128);
    number(4);
    text("desc"), number(180), number(100);
    text("cprt"), number(280), number(20);
    text("wtpt"), number(300), number(20);
    text("kTRC"), number(320), number(14);
    fill(180);
    text("desc"), number(0), number(5), text(std::string_view("Grey", 5));
    fill(280);
    text("text"), number(0), text("for everyone");
    fill(300);
    text("XYZ "), number(0), number(0xf6d6), number(0x10000), number(0xd32d);
    fill(320);
    text("curv"), number(0), number(1), number(0x0233, 2);
    fill(344);
    return profile;
}

BitmapImageRep grey(std::uint32_t wide, std::uint32_t high, bool isOpaque = true) {
    Noise noise(wide * 7 + high);
    BitmapImageRep picture = pictureOf(wide, high, [&](std::uint32_t x, std::uint32_t y) {
        const auto value = static_cast<std::uint8_t>(x * 2 + y * 3);
        return Pixel{value, value, value, isOpaque ? std::uint8_t{255} : noise()};
    });
    picture.colourProfile = greyProfile();
    return picture;
}

const std::vector<BitmapImageFileType> kHoldGrey = {
    BitmapImageFileType::Tiff, BitmapImageFileType::Jpeg, BitmapImageFileType::Png,
    BitmapImageFileType::Jpeg2000};

class GreyProfile : public testing::TestWithParam<NamedFileType> {
protected:
    BitmapImageFileType type() const { return GetParam().type; }
    bool holdsGrey() const {
        return std::find(kHoldGrey.begin(), kHoldGrey.end(), type()) != kHoldGrey.end();
    }
    bool isExact() const {
        return type() != BitmapImageFileType::Jpeg && type() != BitmapImageFileType::Gif;
    }
};
INSTANTIATE_TEST_SUITE_P(All, GreyProfile, testing::ValuesIn(allFileTypes()),
                         [](const auto& one) { return std::string(one.param.name); });

TEST_P(GreyProfile, StaysWithGreyPixels) {
    for (const bool isOpaque : {true, false}) {
        for (const auto& [wide, high] : {std::pair{1u, 1u}, {40u, 30u}, {1030u, 1100u}}) {
            SCOPED_TRACE(std::to_string(wide) + " x " + std::to_string(high));
            const BitmapImageRep original = grey(wide, high, isOpaque);
            const BitmapImageRep read = decoded(encoded(original, type()));
            EXPECT_EQ(read.colourProfile, holdsGrey() ? original.colourProfile : Data());
            ASSERT_EQ(read.rgba.size(), original.rgba.size());
            if (isExact()) {
                EXPECT_EQ(largestDifference(read, original), 0);
            } else if (isOpaque) {
                EXPECT_LE(meanDifference(read, original), 3);
            }
        }
    }
}

TEST_P(GreyProfile, OfAPictureOnWhiteStaysInJpeg) {
    BitmapImageRep picture = grey(16, 16);
    for (std::size_t i = 0; i < picture.rgba.size(); i += 4) {
        std::fill_n(picture.rgba.begin() + static_cast<std::ptrdiff_t>(i), 3, std::uint8_t{100});
        picture.rgba[i + 3] = 128;
    }
    const BitmapImageRep read = decoded(encoded(picture, type()));
    ASSERT_EQ(read.rgba.size(), picture.rgba.size());
    const bool isFlat = type() == BitmapImageFileType::Jpeg;
    EXPECT_NEAR(read.rgba[0], isFlat ? 177 : 100, 1);
    EXPECT_EQ(read.rgba[3] == 255, isFlat || type() == BitmapImageFileType::Gif);
}

TEST_P(GreyProfile, IsLeftOutWhereAPixelIsNotGrey) {
    constexpr std::size_t kPixels = 100 * 90;
    for (const std::size_t place : {std::size_t{0}, std::size_t{1}, std::size_t{4095},
                                    std::size_t{4096}, std::size_t{5000}, kPixels - 1}) {
        for (std::size_t channel = 0; channel < 3; ++channel) {
            BitmapImageRep original = grey(100, 90, false);
            original.rgba[place * 4 + channel] ^= 1;
            const BitmapImageRep read = decoded(encoded(original, type()));
            EXPECT_EQ(read.colourProfile, Data()) << place;
            if (isExact()) {
                EXPECT_EQ(largestDifference(read, original), 0);
            }
        }
    }
}

TEST(GreyProfileOfIcons, StaysInEveryRepresentation) {
    const auto image = Image::initWithBitmap(grey(20, 10));
    BitmapImageRep coloured = flag(30, 15);
    coloured.colourProfile = sampleProfile();
    ASSERT_TRUE(image->addRepresentation(coloured));
    ASSERT_TRUE(image->addRepresentation(grey(40, 20, false)));
    const auto again = Image::initWithData(*image->TIFFRepresentation());
    ASSERT_NE(again, nullptr);
    ASSERT_EQ(again->representationCount(), 3u);
    EXPECT_EQ(again->representation(0)->colourProfile, greyProfile());
    EXPECT_EQ(again->representation(1)->colourProfile, coloured.colourProfile);
    EXPECT_EQ(again->representation(2)->colourProfile, greyProfile());
    // Directories that were read are written anew beside one that is added.
    ASSERT_TRUE(again->addRepresentation(flag(3, 3)));
    const auto third = Image::initWithData(*again->TIFFRepresentation());
    ASSERT_NE(third, nullptr);
    EXPECT_EQ(third->representation(0)->colourProfile, greyProfile());
    EXPECT_EQ(largestDifference(*third->representation(2), grey(40, 20, false)), 0);
}

// What other programs make of such files.
class GreyFiles : public testing::Test {
protected:
    std::string at(const std::string& name) const { return (folder_.path() / name).string(); }
    std::string written(const BitmapImageRep& picture, BitmapImageFileType type) const {
        const std::string path =
            at(std::string("picture.") + allFileTypes()[static_cast<std::size_t>(type)].name);
        writeFile(path, encoded(picture, type));
        return path;
    }
    std::string written(const std::string& name, const Data& bytes) const {
        writeFile(at(name), bytes);
        return at(name);
    }
    TemporaryFolder folder_;
};

TEST_F(GreyFiles, OfTiffAreBlackIsZero) {
    const std::string opaque =
        outputOf("/usr/bin/tiffinfo", {"-d", written(grey(40, 30), BitmapImageFileType::Tiff)});
    EXPECT_THAT(opaque, HasSubstr("Photometric Interpretation: min-is-black"));
    EXPECT_THAT(opaque, HasSubstr("Samples/Pixel: 1\n"));
    EXPECT_THAT(opaque, Not(HasSubstr("Extra Samples")));
    EXPECT_THAT(opaque, HasSubstr("ICC Profile: <present>, 344 bytes"));
    const std::string clear = outputOf(
        "/usr/bin/tiffinfo", {"-d", written(grey(40, 30, false), BitmapImageFileType::Tiff)});
    EXPECT_THAT(clear, HasSubstr("Photometric Interpretation: min-is-black"));
    EXPECT_THAT(clear, HasSubstr("Samples/Pixel: 2\n"));
    EXPECT_THAT(clear, HasSubstr("Extra Samples: 1<unassoc-alpha>"));
}

TEST_F(GreyFiles, OfPngAreGrayscale) {
    const std::string opaque =
        outputOf("/usr/bin/pngcheck", {"-v", written(grey(30, 20), BitmapImageFileType::Png)});
    EXPECT_THAT(opaque, HasSubstr("30 x 20 image, 8-bit grayscale, non-interlaced"));
    EXPECT_THAT(opaque, HasSubstr("chunk iCCP"));
    EXPECT_THAT(opaque, HasSubstr("No errors detected"));
    const std::string clear = outputOf(
        "/usr/bin/pngcheck", {"-v", written(grey(30, 20, false), BitmapImageFileType::Png)});
    EXPECT_THAT(clear, HasSubstr("30 x 20 image, 16-bit grayscale+alpha, non-interlaced"));
    EXPECT_THAT(clear, HasSubstr("chunk iCCP"));
    EXPECT_THAT(clear, HasSubstr("No errors detected"));
}

TEST_F(GreyFiles, OfJpegHaveOneChannelAndTheWholeProfile) {
    outputOf("/usr/bin/djpeg", {"-pnm", "-icc", at("out.icc"), "-outfile", at("out.pgm"),
                                written(grey(120, 80), BitmapImageFileType::Jpeg)});
    EXPECT_EQ(readFile(at("out.icc")), greyProfile());
    const Data pgm = readFile(at("out.pgm"));
    ASSERT_EQ(pgm.size(), 14u + 120 * 80);
    EXPECT_EQ(std::string(pgm.begin(), pgm.begin() + 14), "P5\n120 80\n255\n");
    BitmapImageRep seen{120, 80, {}};
    for (std::size_t i = 14; i < pgm.size(); ++i)
        seen.rgba.insert(seen.rgba.end(), {pgm[i], pgm[i], pgm[i], 255});
    EXPECT_LE(meanDifference(seen, grey(120, 80)), 2);
}

TEST_F(GreyFiles, OfJpeg2000HaveOneChannelAndMaybeAlpha) {
    const auto dumped = [](const std::string& path) {
        // It writes a blank line to standard error.
        return outputOf("/bin/sh", {"-c", "opj_dump -i \"$1\" 2>/dev/null", "sh", path});
    };
    const std::string opaque = written(grey(40, 30), BitmapImageFileType::Jpeg2000);
    EXPECT_THAT(dumped(opaque), HasSubstr("numcomps=1\n"));
    // Manages colours: grey by the profile becomes sRGB, which is nearly the same.
    outputOf("/usr/bin/opj_decompress", {"-quiet", "-i", opaque, "-o", at("out.png")});
    const BitmapImageRep managed = decoded(readFile(at("out.png")));
    EXPECT_LE(meanDifference(managed, grey(40, 30)), 3);
    EXPECT_NE(largestDifference(managed, grey(40, 30)), 0) << "the profile was not used";
    const std::string clear = written(grey(40, 30, false), BitmapImageFileType::Jpeg2000);
    EXPECT_THAT(dumped(clear), HasSubstr("numcomps=2\n"));
}

TEST_F(GreyFiles, OfPdfAreOfOneComponentInTheProfile) {
    for (const bool isOpaque : {true, false}) {
        const auto document = exportedPDF(Image::initWithBitmap(grey(40, 50, isOpaque)), 20);
        ASSERT_TRUE(document);
        const std::string path = written("pages.pdf", *document);
        EXPECT_THAT(outputOf("/usr/bin/qpdf", {"--check", path}),
                    HasSubstr("No syntax or stream encoding errors found"));
        const std::string list = outputOf("/usr/bin/pdfimages", {"-list", path});
        EXPECT_THAT(list, testing::ContainsRegex("image +40 +20 +icc +1 +8 "));
        EXPECT_THAT(list, Not(HasSubstr(" rgb ")));
        EXPECT_THAT(list, Not(testing::ContainsRegex("icc +3 ")));
        EXPECT_EQ(list.find("smask") == std::string::npos, isOpaque);
    }
}

TEST_F(GreyFiles, OfOthersKeepTheirProfile) {
    const std::string profile = written("grey.icc", greyProfile());
    for (const char* const name : {"a.png", "a.jpg", "a.tiff"}) {
        SCOPED_TRACE(name);
        outputOf("/usr/bin/convert", {"-size", "30x20", "gradient:black-white", "-colorspace",
                                      "Gray", "-depth", "16", "-profile", profile, at(name)});
        const BitmapImageRep read = decoded(readFile(at(name)));
        EXPECT_EQ(read.colourProfile, greyProfile());
        EXPECT_EQ(read.rgba[0], 0);
        EXPECT_NEAR(read.rgba[read.rgba.size() - 4], 255, 1);
    }
}

TEST_F(GreyFiles, ShowTheirProfileToOthers) {
    for (const BitmapImageFileType type : kHoldGrey) {
        const std::string path = written(grey(30, 20), type);
        SCOPED_TRACE(path);
        outputOf("/usr/bin/convert", {path, "icc:" + at("out.icc")});
        EXPECT_EQ(readFile(at("out.icc")), greyProfile());
    }
}

}  // namespace
