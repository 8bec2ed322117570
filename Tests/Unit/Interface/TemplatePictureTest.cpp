#include <gtest/gtest.h>

#include "Applications/Agent/Interface/ToolPictures.h"
#include "Applications/Desktop/DesktopPalette.h"
#include "Tests/Unit/Interface/OffscreenApplication.h"

// Pictures of tools, pixel by pixel.

namespace utilia::agent {
namespace {

using platform::BitmapImageRep;
using platform::Image;

class TemplatePicture : public testing::Test {
protected:
    // The left half is red, the right half clear.
    static std::shared_ptr<Image> halfRed(unsigned side) {
        BitmapImageRep bitmap{side, side, {}};
        for (unsigned i = 0; i < side * side; ++i) {
            const bool isRed = i % side < side / 2;
            for (const int part : {isRed ? 255 : 0, 0, 0, isRed ? 255 : 0})
                bitmap.rgba.push_back(static_cast<std::uint8_t>(part));
        }
        return Image::initWithBitmap(std::move(bitmap));
    }
    test::OffscreenApplication application_;
};

TEST_F(TemplatePicture, TakesTheColourOfLightAndDarkPanels) {
    const auto image = halfRed(16);
    image->setTemplate(true);
    for (const QColor color : {QColor(Qt::black), QColor(Qt::white), QColor(0x12, 0x34, 0x56)}) {
        const QImage picture = pictureOf(image.get(), 16, color);
        EXPECT_EQ(picture.pixelColor(2, 8), color);
        EXPECT_EQ(picture.pixelColor(7, 15), color);
        EXPECT_EQ(picture.pixelColor(12, 8).alpha(), 0);
    }
}

TEST_F(TemplatePicture, KeepsTheColoursOfOtherImages) {
    const auto image = halfRed(16);
    for (const QColor color : {QColor(Qt::black), QColor(Qt::white)}) {
        const QImage picture = pictureOf(image.get(), 16, color);
        EXPECT_EQ(picture.pixelColor(2, 8), QColor(Qt::red));
        EXPECT_EQ(picture.pixelColor(12, 8).alpha(), 0);
    }
}

TEST_F(TemplatePicture, OfTheAgentTakesTheColourOfThePanel) {
    for (const QColor color : {QColor(Qt::black), QColor(Qt::white)}) {
        const QImage mark = agentMark(32, color);
        EXPECT_EQ(mark.pixelColor(8, 8), color) << "a field";
        EXPECT_EQ(mark.pixelColor(16, 16).alpha(), 0) << "between the fields";
    }
}

TEST_F(TemplatePicture, IsALetterThatCanBeReadForAToolWithoutOne) {
    ToolEntry tool;
    tool.name = "\xE2\x80\xA2";  // a dot in the middle
    for (int i = 0; i < 360; ++i) {
        tool.identifier = "com.korvane.utilia.Tool" + std::to_string(i);
        const QColor disc = pictureOf(tool, 32, Qt::black).pixelColor(4, 16);
        EXPECT_GE(desktop::contrastRatio(disc, Qt::white), desktop::kEnoughContrast)
            << tool.identifier;
    }
}

}  // namespace
}  // namespace utilia::agent
