#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Tests/Support/SamplePictures.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Unit/Images/BitmapFixture.h"

using namespace utilia;
using namespace utilia::platform;
using namespace utilia::test;

// What other programs make of the files that are written here.

namespace {

class OtherPrograms : public testing::Test {
protected:
    std::string at(const std::string& name) const { return (folder_.path() / name).string(); }
    std::string written(const BitmapImageRep& bitmap, const NamedFileType& type) const {
        const std::string path = at(std::string("picture.") + type.name);
        writeFile(path, encoded(bitmap, type.type));
        return path;
    }
    std::string written(const BitmapImageRep& bitmap, BitmapImageFileType type) const {
        return written(bitmap, allFileTypes()[static_cast<std::size_t>(type)]);
    }
    // The pixels that ImageMagick sees, as 8-bit RGBA.
    BitmapImageRep seenBy(const std::string& program, const std::string& path,
                          const BitmapImageRep& like) const {
        outputOf(program, {path, "-depth", "8", "rgba:" + at("raw")});
        return {like.pixelsWide, like.pixelsHigh, readFile(at("raw"))};
    }

private:
    TemporaryFolder folder_;
};

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST_F(OtherPrograms, SeeTheSamePixels) {
    for (const NamedFileType& one : allFileTypes()) {
        SCOPED_TRACE(one.name);
        const bool isLossy = one.type == BitmapImageFileType::Jpeg;
        const bool isGif = one.type == BitmapImageFileType::Gif;
        for (const BitmapImageRep& original : {isLossy ? gradient(90, 70) : flag(90, 70),
                                               isLossy || isGif ? gradient(9, 7) : noise(9, 7)}) {
            const BitmapImageRep seen =
                seenBy("/usr/bin/convert", written(original, one), original);
            if (!isLossy) {
                // What lies behind full transparency nobody sees.
                BitmapImageRep visible = original, theirs = seen;
                ASSERT_EQ(theirs.rgba.size(), visible.rgba.size());
                for (std::size_t i = 0; i < visible.rgba.size(); i += 4) {
                    if (visible.rgba[i + 3] == 0 && theirs.rgba[i + 3] == 0)
                        std::fill_n(theirs.rgba.begin() + static_cast<std::ptrdiff_t>(i), 3,
                                    visible.rgba[i]);
                    if (visible.rgba[i + 3] == 0)
                        std::fill_n(visible.rgba.begin() + static_cast<std::ptrdiff_t>(i), 3,
                                    visible.rgba[i]);
                }
                EXPECT_EQ(largestDifference(theirs, visible), 0);
            } else {
                EXPECT_LE(meanDifference(seen, original), 1.5);
            }
        }
    }
}

TEST_F(OtherPrograms, FindNothingWrongWithPng) {
    BitmapImageRep picture = noise(300, 200);
    picture.colourProfile = sampleProfile();
    const std::string told =
        outputOf("/usr/bin/pngcheck", {"-v", written(picture, BitmapImageFileType::Png)});
    EXPECT_TRUE(contains(told, "No errors detected")) << told;
    EXPECT_TRUE(contains(told, "300 x 200 image, 32-bit RGB+alpha, non-interlaced")) << told;
    EXPECT_TRUE(contains(told, "chunk iCCP")) << told;
    EXPECT_TRUE(contains(told, "(72 dpi)")) << told;
    EXPECT_TRUE(contains(
        outputOf("/usr/bin/pngcheck", {"-v", written(opaqueNoise(3, 2), BitmapImageFileType::Png)}),
        "3 x 2 image, 24-bit RGB, non-interlaced"));
}

TEST_F(OtherPrograms, ReadJpegWithoutAWarning) {
    const BitmapImageRep picture = gradient(120, 80);
    const std::string path = written(picture, BitmapImageFileType::Jpeg);
    outputOf("/usr/bin/djpeg", {"-pnm", "-outfile", at("out.ppm"), path});
    const Data pnm = readFile(at("out.ppm"));
    const std::string head(pnm.begin(), pnm.begin() + 15);
    ASSERT_TRUE(head.starts_with("P6\n120 80\n255\n")) << head;
    BitmapImageRep seen{120, 80, {}};
    for (std::size_t i = 14; i + 2 < pnm.size(); i += 3)
        seen.rgba.insert(seen.rgba.end(), {pnm[i], pnm[i + 1], pnm[i + 2], 255});
    EXPECT_LE(meanDifference(seen, picture), 1);
    const std::string told = outputOf("/usr/bin/identify", {"-verbose", path});
    EXPECT_TRUE(contains(told, "Quality: 90")) << told;
    EXPECT_TRUE(contains(told, "sampling-factor: 1x1,1x1,1x1")) << told;
    EXPECT_TRUE(contains(told, "Resolution: 72x72")) << told;
}

TEST_F(OtherPrograms, ReadGif) {
    const std::string told =
        outputOf("/usr/bin/gifsicle", {"--info", written(flag(30, 20), BitmapImageFileType::Gif)});
    EXPECT_TRUE(contains(told, "1 image")) << told;
    EXPECT_TRUE(contains(told, "logical screen 30x20")) << told;
    EXPECT_TRUE(contains(told, "transparent 4")) << told;
}

TEST_F(OtherPrograms, ReadJpeg2000) {
    const std::string path = written(noise(40, 30), BitmapImageFileType::Jpeg2000);
    outputOf("/usr/bin/opj_decompress", {"-quiet", "-i", path, "-o", at("out.png")});
    EXPECT_EQ(largestDifference(decoded(readFile(at("out.png"))), noise(40, 30)), 0);
}

TEST_F(OtherPrograms, ReadTiff) {
    BitmapImageRep picture = noise(40, 30);
    picture.colourProfile = sampleProfile();
    const std::string told =
        outputOf("/usr/bin/tiffinfo", {"-d", written(picture, BitmapImageFileType::Tiff)});
    EXPECT_TRUE(contains(told, "Image Width: 40 Image Length: 30")) << told;
    EXPECT_TRUE(contains(told, "ICC Profile: <present>, 344 bytes")) << told;
}

TEST_F(OtherPrograms, ReadBmp) {
    EXPECT_TRUE(contains(
        outputOf("/usr/bin/file", {"-b", written(opaqueNoise(5, 4), BitmapImageFileType::Bmp)}),
        "Windows 3.x format, 5 x 4 x 24"));
    EXPECT_TRUE(
        contains(outputOf("/usr/bin/file", {"-b", written(noise(5, 4), BitmapImageFileType::Bmp)}),
                 "Windows 98/2000 and newer format, 5 x 4 x 32"));
}

}  // namespace
