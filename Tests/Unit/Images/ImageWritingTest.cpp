#include <cstring>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "Common/Platform/Image.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"
#include "Tests/Unit/Images/TiffFixture.h"

using namespace utilia;
using namespace utilia::platform;
using namespace utilia::test;

namespace {

// Pixels that differ everywhere, some of them with colour behind full transparency.
BitmapImageRep bitmap(std::uint32_t width, std::uint32_t height) {
    BitmapImageRep result{width, height, {}};
    for (std::size_t i = 0; i < std::size_t{width} * height * 4; ++i) {
        result.rgba.push_back(static_cast<std::uint8_t>(i * 89 + i / 251));
    }
    return result;
}

std::string write(const TemporaryFolder& folder, const Data& bytes) {
    const std::string path = (folder.path() / "image.tiff").string();
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    return path;
}

std::string contents(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

TEST(ImageWriting, KeepsEveryPixelEvenBehindTransparency) {
    const auto original = bitmap(37, 19);
    const auto image = Image::initWithBitmap(original);
    ASSERT_NE(image, nullptr);
    EXPECT_TRUE(image->isValid());
    const auto bytes = image->TIFFRepresentation();
    ASSERT_TRUE(bytes);
    const auto again = Image::initWithData(*bytes);
    ASSERT_NE(again, nullptr);
    const auto pixels = again->representation(0);
    ASSERT_TRUE(pixels);
    EXPECT_EQ(pixels->pixelsWide, 37u);
    EXPECT_EQ(pixels->pixelsHigh, 19u);
    EXPECT_EQ(pixels->rgba, original.rgba);
}

TEST(ImageWriting, IsUncompressedRGBAWithUnassociatedAlpha) {
    const Data bytes = Image::initWithBitmap(bitmap(512, 512))->TIFFRepresentation().value();
    EXPECT_EQ(tiffField(bytes, 0, TIFFTAG_COMPRESSION), COMPRESSION_NONE);
    EXPECT_EQ(tiffField(bytes, 0, TIFFTAG_PHOTOMETRIC), PHOTOMETRIC_RGB);
    EXPECT_EQ(tiffField(bytes, 0, TIFFTAG_SAMPLESPERPIXEL), 4);
    EXPECT_EQ(tiffField(bytes, 0, TIFFTAG_BITSPERSAMPLE), 8);
    EXPECT_GE(bytes.size(), 512u * 512 * 4);
    EXPECT_LE(bytes.size(), 512u * 512 * 4 + 512);
}

TEST(ImageWriting, GivesTheSameBytesForTheSamePixels) {
    const auto image = Image::initWithBitmap(bitmap(20, 20));
    const auto first = image->TIFFRepresentation();
    EXPECT_EQ(image->TIFFRepresentation(), first);
    EXPECT_EQ(Image::initWithBitmap(bitmap(20, 20))->TIFFRepresentation(), first);
}

TEST(ImageWriting, PutsEachRepresentationIntoADirectoryInOrder) {
    const auto image = Image::initWithBitmap(bitmap(16, 16));
    const auto before = image->TIFFRepresentation();
    EXPECT_TRUE(image->addRepresentation(bitmap(32, 24)));
    EXPECT_EQ(image->pixelsWide(), 32u);
    EXPECT_EQ(image->pixelsHigh(), 24u);
    const auto bytes = image->TIFFRepresentation();
    ASSERT_TRUE(bytes);
    EXPECT_NE(bytes, before);
    const auto again = Image::initWithData(*bytes);
    ASSERT_NE(again, nullptr);
    ASSERT_EQ(again->representationCount(), 2u);
    EXPECT_EQ(again->representation(0)->rgba, bitmap(16, 16).rgba);
    EXPECT_EQ(again->representation(1)->rgba, bitmap(32, 24).rgba);
}

TEST(ImageWriting, RefusesPixelsThatDoNotFitTheirSides) {
    const auto with = [](std::uint32_t width, std::uint32_t height, std::size_t bytes) {
        return BitmapImageRep{width, height, Data(bytes)};
    };
    const std::vector<BitmapImageRep> refused = {
        with(0, 0, 0),
        with(0, 4, 0),
        with(4, 0, 0),
        with(4, 4, 63),
        with(4, 4, 65),
        with(4, 4, 0),
        with(0x80000000, 0x80000000, 0),
        with(kImageMaximumSide + 1, 1, (kImageMaximumSide + 1) * 4),
    };
    const auto image = Image::initWithBitmap(bitmap(4, 4));
    const auto before = image->TIFFRepresentation();
    for (const BitmapImageRep& one : refused) {
        EXPECT_EQ(Image::initWithBitmap(one), nullptr) << one.pixelsWide << " x " << one.pixelsHigh;
        EXPECT_FALSE(image->addRepresentation(one)) << one.pixelsWide << " x " << one.pixelsHigh;
    }
    EXPECT_EQ(image->representationCount(), 1u);
    EXPECT_EQ(image->TIFFRepresentation(), before);
}

TEST(ImageWriting, TakesRepresentationsUpToTheLimit) {
    const auto image = Image::initWithBitmap(bitmap(3, 3));
    for (std::size_t i = 1; i < kImageMaximumRepresentations; ++i)
        EXPECT_TRUE(image->addRepresentation(bitmap(3, 3)));
    EXPECT_FALSE(image->addRepresentation(bitmap(3, 3)));
    const auto again = Image::initWithData(image->TIFFRepresentation().value());
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again->representationCount(), kImageMaximumRepresentations);
}

TEST(ImageWriting, AnswersTheVeryBytesThatWereRead) {
    const Data file = makeTiff(
        {{.bits = 16, .compression = COMPRESSION_LZW}, {.samples = 3, .extraSamples = {}}});
    const auto image = Image::initWithData(file);
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(image->TIFFRepresentation(), file);
    ASSERT_TRUE(image->representation(0));
    EXPECT_EQ(image->TIFFRepresentation(), file);
}

TEST(ImageWriting, KeepsTheCompressionOfWhatWasRead) {
    for (const std::uint16_t compression : std::initializer_list<std::uint16_t>{
             COMPRESSION_NONE, COMPRESSION_PACKBITS, COMPRESSION_LZW, COMPRESSION_ADOBE_DEFLATE}) {
        SCOPED_TRACE(compression);
        const auto image = Image::initWithData(makeTiff({{.compression = compression}}));
        ASSERT_NE(image, nullptr);
        const Data pixels = image->representation(0)->rgba;
        ASSERT_TRUE(image->addRepresentation(bitmap(8, 8)));
        const Data bytes = image->TIFFRepresentation().value();
        EXPECT_EQ(tiffField(bytes, 0, TIFFTAG_COMPRESSION), compression);
        EXPECT_EQ(tiffField(bytes, 1, TIFFTAG_COMPRESSION), COMPRESSION_NONE);
        const auto again = Image::initWithData(bytes);
        ASSERT_NE(again, nullptr);
        EXPECT_EQ(again->representation(0)->rgba, pixels);
        EXPECT_EQ(again->representation(1)->rgba, bitmap(8, 8).rgba);
    }
}

TEST(ImageWriting, WritesCompressedPicturesOfManyStripsWhole) {
    TiffPicture large{.width = 1000, .height = 700, .compression = COMPRESSION_LZW};
    const auto image = Image::initWithData(makeTiff({large}));
    ASSERT_NE(image, nullptr);
    const Data pixels = image->representation(0)->rgba;
    ASSERT_TRUE(image->addRepresentation(bitmap(8, 8)));
    const auto again = Image::initWithData(image->TIFFRepresentation().value());
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again->representation(0)->rgba, pixels);
}

TEST(ImageWriting, LeavesOutADamagedRepresentationWithOneLine) {
    const Data file = makeTiff({{.width = 16, .height = 16},
                                {.width = 16,
                                 .height = 16,
                                 .compression = COMPRESSION_ADOBE_DEFLATE,
                                 .rowsPerStrip = 16}});
    const auto image = Image::initWithData(withEntry(file, TIFFTAG_STRIPBYTECOUNTS, 5, 1));
    ASSERT_NE(image, nullptr);
    ASSERT_TRUE(image->addRepresentation(bitmap(8, 8)));
    const TestLog log;
    const auto again = Image::initWithData(image->TIFFRepresentation().value());
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again->representationCount(), 2u);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_TRUE(
        log.lines()[0].starts_with("An image loses a damaged representation: decode image: "));
}

TEST(ImageWriting, IsReadByOtherPrograms) {
    const auto image = Image::initWithBitmap(bitmap(512, 512));
    ASSERT_TRUE(image->addRepresentation(bitmap(37, 19)));
    const TemporaryFolder folder;
    const std::string path = write(folder, image->TIFFRepresentation().value());
    // -d reads the pixels too.
    ChildProcess::Options options;
    options.standardError = (folder.path() / "errors").string();
    options.standardOutput = (folder.path() / "output").string();
    auto program = ChildProcess::program("/usr/bin/tiffinfo", {"-d", path}, options);
    EXPECT_EQ(program.waitForExit(), 0);
    EXPECT_EQ(contents(folder.path() / "errors"), "");
    const std::string output = contents(folder.path() / "output");
    EXPECT_NE(output.find("Image Width: 512 Image Length: 512"), std::string::npos)
        << output.substr(0, 1000);
    EXPECT_NE(output.find("Image Width: 37 Image Length: 19"), std::string::npos);
    EXPECT_NE(output.find("Resolution: 72, 72 pixels/inch"), std::string::npos);
    EXPECT_NE(output.find("Extra Samples: 1<unassoc-alpha>"), std::string::npos);
}

}  // namespace
