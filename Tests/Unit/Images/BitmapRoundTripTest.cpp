#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Tests/Support/SamplePictures.h"
#include "Tests/Unit/Images/BitmapFixture.h"

using namespace utilia;
using namespace utilia::platform;
using namespace utilia::test;

namespace {

class FileTypes : public testing::TestWithParam<NamedFileType> {
protected:
    BitmapImageFileType type() const { return GetParam().type; }
    BitmapImageRep through(const BitmapImageRep& bitmap) const {
        return decoded(encoded(bitmap, type()));
    }
};
using LosslessFileTypes = FileTypes;
using FileTypesWithExactColours = FileTypes;
using FileTypesWithOpaqueProfiles = FileTypes;

auto typesBut(const std::vector<BitmapImageFileType>& left) {
    std::vector<NamedFileType> types = allFileTypes();
    std::erase_if(types, [&left](const NamedFileType& one) {
        return std::find(left.begin(), left.end(), one.type) != left.end();
    });
    return testing::ValuesIn(types);
}

std::string nameOf(const testing::TestParamInfo<NamedFileType>& one) { return one.param.name; }

INSTANTIATE_TEST_SUITE_P(All, FileTypes, typesBut({}), nameOf);
INSTANTIATE_TEST_SUITE_P(All, LosslessFileTypes,
                         typesBut({BitmapImageFileType::Jpeg, BitmapImageFileType::Gif}), nameOf);
INSTANTIATE_TEST_SUITE_P(All, FileTypesWithExactColours, typesBut({BitmapImageFileType::Jpeg}),
                         nameOf);
// libpng looks into what it carries.
INSTANTIATE_TEST_SUITE_P(All, FileTypesWithOpaqueProfiles, typesBut({BitmapImageFileType::Png}),
                         nameOf);

// Sides where rows are padded, tiles and blocks begin, and bits run out.
const std::vector<std::pair<std::uint32_t, std::uint32_t>>& someSides() {
    static const std::vector<std::pair<std::uint32_t, std::uint32_t>> sides = {
        {1, 1},  {2, 1},  {1, 2},   {3, 5},    {7, 7},    {8, 8},    {9, 17},   {16, 15},
        {31, 2}, {64, 1}, {1, 300}, {255, 33}, {1024, 3}, {1025, 5}, {3, 1025}, {2049, 2},
    };
    return sides;
}

TEST_P(FileTypesWithExactColours, KeepPicturesOfAllSides) {
    for (const auto& [wide, high] : someSides()) {
        SCOPED_TRACE(std::to_string(wide) + " x " + std::to_string(high));
        const BitmapImageRep original = flag(wide, high);
        ASSERT_EQ(largestDifference(through(original), original), 0);
    }
}

TEST_P(FileTypes, KeepAllSides) {
    for (const auto& [wide, high] : someSides()) {
        const BitmapImageRep read = through(noise(wide, high));
        ASSERT_EQ(read.pixelsWide, wide);
        ASSERT_EQ(read.pixelsHigh, high);
    }
}

TEST_P(LosslessFileTypes, KeepEveryPixel) {
    for (const BitmapImageRep& original : {noise(41, 29), opaqueNoise(41, 29), noise(1100, 1030)})
        EXPECT_EQ(largestDifference(through(original), original), 0);
}

TEST_P(LosslessFileTypes, KeepOnePixelThatIsNotOpaqueWhereverItIs) {
    for (std::uint32_t wide = 1; wide < 19; ++wide) {
        for (std::size_t place = 0; place < std::size_t{wide} * 2; ++place) {
            BitmapImageRep original = opaqueNoise(wide, 2);
            original.rgba[place * 4 + 3] = 254;
            ASSERT_EQ(largestDifference(through(original), original), 0) << wide << " " << place;
        }
    }
}

TEST_P(LosslessFileTypes, KeepRandomPicturesOfRandomSides) {
    std::mt19937 random(4711);
    const auto below = [&random](unsigned limit) {
        return static_cast<std::uint32_t>(random() % limit);
    };
    for (int i = 0; i < 40; ++i) {
        const std::uint32_t wide = below(90) + 1, high = below(90) + 1;
        SCOPED_TRACE(std::to_string(wide) + " x " + std::to_string(high));
        BitmapImageRep original{wide, high, Data(std::size_t{wide} * high * 4)};
        const unsigned levels = below(3) == 0 ? 2 : 200;
        for (std::uint8_t& byte : original.rgba)
            byte = static_cast<std::uint8_t>(below(levels) * 255 / (levels - 1));
        ASSERT_EQ(largestDifference(through(original), original), 0);
    }
}

TEST_P(FileTypes, AreNotFarOff) {
    const BitmapImageRep original = gradient(200, 150);
    const BitmapImageRep read = through(original);
    EXPECT_LE(meanDifference(read, original), 4);
    EXPECT_LE(largestDifference(read, original), 40);
}

TEST_P(FileTypes, CarryTheProfile) {
    BitmapImageRep original = flag(30, 20);
    original.colourProfile = sampleProfile();
    EXPECT_EQ(through(original).colourProfile, original.colourProfile);
    EXPECT_EQ(through(opaqueNoise(3, 3)).colourProfile, Data());
}

TEST_P(FileTypesWithOpaqueProfiles, CarryAProfileOfManyPieces) {
    // JPEG cuts at 65,519 bytes, GIF at 255.
    BitmapImageRep original = flag(30, 20);
    original.colourProfile = sampleProfile(200'000);
    EXPECT_EQ(through(original).colourProfile, original.colourProfile);
}

TEST_P(FileTypes, LeaveOutProfilesOfOtherColours) {
    for (const Data& profile :
         {sampleProfile(344, "GRAY"), sampleProfile(344, "CMYK"), Data(132, 1), Data(3, 1)}) {
        BitmapImageRep original = flag(3, 2);
        original.colourProfile = profile;
        EXPECT_EQ(through(original).colourProfile, Data());
    }
}

TEST_P(FileTypes, GiveTheSameBytesForTheSamePicture) {
    EXPECT_EQ(encoded(noise(50, 40), type()), encoded(noise(50, 40), type()));
}

}  // namespace
