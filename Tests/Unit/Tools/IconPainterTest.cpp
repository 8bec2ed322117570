#include "Applications/Tools/Drawing/IconPainter.h"

#include <array>

namespace utilia::tools {
namespace {

constexpr Colour kRed{1, 0, 0, 1};

std::array<std::uint8_t, 4> pixel(const platform::BitmapImageRep& bitmap, std::size_t column,
                                  std::size_t row) {
    const std::size_t at = 4 * (row * bitmap.pixelsWide + column);
    return {bitmap.rgba[at], bitmap.rgba[at + 1], bitmap.rgba[at + 2], bitmap.rgba[at + 3]};
}

using Pixel = std::array<std::uint8_t, 4>;

TEST(IconPainter, PaintsOneRepresentationForEachSide) {
    const auto image = paintIcon({4, 8}, [](double, double) { return kRed; });
    ASSERT_EQ(image->representationCount(), 2u);
    EXPECT_EQ(image->representation(0)->pixelsWide, 4u);
    EXPECT_EQ(image->representation(1)->pixelsHigh, 8u);
    EXPECT_FALSE(image->isTemplate());
}

TEST(IconPainter, CountsXToTheRightAndYDown) {
    const auto image =
        paintIcon({2}, [](double x, double y) { return x > 0 && y < 0 ? kRed : Colour{}; });
    const auto bitmap = image->representation(0);
    ASSERT_TRUE(bitmap);
    EXPECT_EQ(pixel(*bitmap, 1, 0), (Pixel{255, 0, 0, 255}));
    EXPECT_EQ(pixel(*bitmap, 0, 0), (Pixel{0, 0, 0, 0}));
    EXPECT_EQ(pixel(*bitmap, 1, 1), (Pixel{0, 0, 0, 0}));
}

TEST(IconPainter, SmoothsAnEdgeWithoutTintingIt) {
    const auto image = paintIcon({1}, [](double x, double) { return x < 0 ? kRed : Colour{}; });
    const auto bitmap = image->representation(0);
    ASSERT_TRUE(bitmap);
    EXPECT_EQ(pixel(*bitmap, 0, 0), (Pixel{255, 0, 0, 128}));
}

}  // namespace
}  // namespace utilia::tools
