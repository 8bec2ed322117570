#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/resource.h>

#include "Common/Platform/Image.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Unit/Images/TiffFixture.h"

using namespace utilia;
using namespace utilia::platform;
using namespace utilia::test;

namespace {

// Small files that claim to be worth a lot.
std::vector<std::pair<const char*, Data>> hostileFiles() {
    const Data plain = makeTiff({{.rowsPerStrip = 1000}});
    const Data deflated =
        makeTiff({{.compression = COMPRESSION_ADOBE_DEFLATE, .rowsPerStrip = 1000}});
    const Data tiled = makeTiff({{.compression = COMPRESSION_ADOBE_DEFLATE, .tile = 16}});
    const auto sides = [](const Data& file, std::uint32_t width, std::uint32_t height) {
        return withEntry(withEntry(file, TIFFTAG_IMAGEWIDTH, width), TIFFTAG_IMAGELENGTH, height);
    };
    return {
        {"most pixels of all", sides(plain, 0xffffffff, 0xffffffff)},
        {"long and thin", sides(plain, 1, 0xffffffff)},
        {"largest sides within the limit", sides(deflated, kImageMaximumSide, 200)},
        {"largest sides, one row a strip",
         withEntry(sides(deflated, kImageMaximumSide, 200), TIFFTAG_ROWSPERSTRIP, 1)},
        {"no row a strip", withEntry(plain, TIFFTAG_ROWSPERSTRIP, 0)},
        {"endless strip", withEntry(deflated, TIFFTAG_STRIPBYTECOUNTS, 0xffffffff)},
        {"no width", sides(plain, 0, 10)},
        {"no height", sides(plain, 10, 0)},
        {"many bits", withEntry(plain, TIFFTAG_BITSPERSAMPLE, 0xffff)},
        {"many samples", withEntry(plain, TIFFTAG_SAMPLESPERPIXEL, 0xffff)},
        {"wide tiles",
         withEntry(withEntry(tiled, TIFFTAG_TILEWIDTH, 65'536), TIFFTAG_TILELENGTH, 65'536)},
        {"endless tiles", withEntry(withEntry(tiled, TIFFTAG_TILEWIDTH, 0xfffffff0),
                                    TIFFTAG_TILELENGTH, 0xfffffff0)},
        {"many padded tiles",
         withEntry(withEntry(sides(tiled, 1, kImageMaximumSide), TIFFTAG_TILEWIDTH, 1 << 20),
                   TIFFTAG_TILELENGTH, 16)},
    };
}

// What must hold for every answer about bytes that nobody vouches for.
void expectSoundAnswer(const Data& bytes) {
    const auto image = Image::initWithData(bytes);
    if (!image) return;
    ASSERT_TRUE(image->isValid());
    ASSERT_GE(image->representationCount(), 1u);
    ASSERT_LE(image->representationCount(), kImageMaximumRepresentations);
    for (std::size_t i = 0; i < image->representationCount(); ++i) {
        const auto pixels = image->representation(i);
        if (!pixels) {
            ASSERT_FALSE(pixels.error().description.empty());
            continue;
        }
        ASSERT_EQ(pixels->rgba.size(), std::size_t{pixels->pixelsWide} * pixels->pixelsHigh * 4);
    }
    ASSERT_EQ(image->TIFFRepresentation(), bytes);
}

// Every truncation, and every byte turned over, of small files of different make.
void damageEverything() {
    const std::vector<TiffPicture> makes = {
        {.width = 5, .height = 4, .rowsPerStrip = 2},
        {.width = 5,
         .height = 4,
         .compression = COMPRESSION_LZW,
         .predictor = PREDICTOR_HORIZONTAL},
        {.width = 5, .height = 4, .compression = COMPRESSION_ADOBE_DEFLATE},
        {.width = 9,
         .height = 4,
         .bits = 4,
         .samples = 1,
         .photometric = PHOTOMETRIC_PALETTE,
         .extraSamples = {},
         .compression = COMPRESSION_PACKBITS,
         .palette = std::vector<std::uint16_t>(48, 0x8000)},
        {.width = 5,
         .height = 4,
         .bits = 16,
         .planes = PLANARCONFIG_SEPARATE,
         .compression = COMPRESSION_LZW},
        {.width = 20, .height = 4, .compression = COMPRESSION_ADOBE_DEFLATE, .tile = 16},
    };
    for (const TiffPicture& make : makes) {
        const Data whole = makeTiff({make, make});
        for (std::size_t length = 0; length < whole.size(); ++length) {
            expectSoundAnswer(
                Data(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)));
        }
        for (std::size_t i = 0; i < whole.size(); ++i) {
            for (const int change : {0x01, 0x10, 0x80, 0xff}) {
                Data damaged = whole;
                damaged[i] = static_cast<std::uint8_t>(damaged[i] ^ change);
                expectSoundAnswer(damaged);
            }
        }
    }
}

UTILIA_CHILD_ROLE(readDamagedAndHostileFiles) {
    damageEverything();
    for (const auto& [name, bytes] : hostileFiles()) expectSoundAnswer(bytes);
    return testing::Test::HasFailure() ? 1 : 0;
}

TEST(ImageDamage, SurvivesDamageWithoutAWordOnStandardError) {
    const TemporaryFolder folder;
    const std::string errors = (folder.path() / "stderr").string();
    ChildProcess::Options options;
    options.standardError = errors;
    auto child = ChildProcess::role("readDamagedAndHostileFiles", {}, options);
    EXPECT_EQ(child.waitForExit(std::chrono::seconds(120)), 0);
    std::ifstream file(errors);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), "");
}

TEST(ImageDamage, RefusesSmallFilesThatClaimTooMuch) {
    for (const auto& [name, bytes] : hostileFiles())
        EXPECT_EQ(Image::initWithData(bytes), nullptr) << name;
}

TEST(ImageDamage, ReadsDirectoriesThatFormARingOnce) {
    Data ring = makeTiff({{}, {}});
    // The second directory names the first as the next one.
    std::copy_n(ring.begin() + 4, 4,
                ring.begin() + static_cast<std::ptrdiff_t>(entryTable(ring, 1).end));
    const auto image = Image::initWithData(ring);
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(image->representationCount(), 2u);
}

long peakKilobytes() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

UTILIA_CHILD_ROLE(measureRefusals) {
    const auto files = hostileFiles();
    Image::initWithData(makeTiff({{}}));  // the module is loaded
    const long before = peakKilobytes();
    for (const auto& [name, bytes] : files) static_cast<void>(Image::initWithData(bytes));
    self.say(std::to_string(peakKilobytes() - before));
    return 0;
}

TEST(ImageDamage, RefusesWithoutTakingMemory) {
    auto child = ChildProcess::role("measureRefusals");
    const auto kilobytes = child.waitForLine();
    ASSERT_TRUE(kilobytes);
    EXPECT_LT(std::stol(*kilobytes), 16 << 10);
    EXPECT_EQ(child.waitForExit(), 0);
}

TEST(ImageDamage, LooksLargePicturesOverARowAtATime) {
    // 16 MB of pixels in one small strip.
    TiffPicture large{.width = 2000,
                      .height = 2000,
                      .compression = COMPRESSION_ADOBE_DEFLATE,
                      .rowsPerStrip = 2000};
    large.sampleAt = [](std::uint32_t, std::uint32_t y, unsigned sample) {
        return sample == 3 ? 255u : y & 0xff;
    };
    const TemporaryFolder folder;
    const std::string path = (folder.path() / "large.tiff").string();
    const Data bytes = makeTiff({large});
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    auto child = ChildProcess::role("measureLargeFile", {path});
    const auto answer = child.waitForLine();
    ASSERT_TRUE(answer);
    EXPECT_LT(std::stol(*answer), 8 << 10);
    EXPECT_EQ(child.waitForExit(), 0);
}

UTILIA_CHILD_ROLE(measureLargeFile) {
    std::ifstream file(self.arguments.at(0), std::ios::binary);
    const Data bytes(std::istreambuf_iterator<char>(file), {});
    Image::initWithData(makeTiff({{}}));
    const long before = peakKilobytes();
    const auto image = Image::initWithData(bytes);
    if (!image || image->pixelsWide() != 2000) return 1;
    self.say(std::to_string(peakKilobytes() - before));
    return 0;
}

}  // namespace
