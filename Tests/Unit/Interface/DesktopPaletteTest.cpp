#include "Applications/Desktop/DesktopPalette.h"

#include <gtest/gtest.h>

#include <QStyle>

#include "Applications/Agent/Interface/ToolRowColors.h"
#include "Tests/Unit/Interface/OffscreenApplication.h"

// Whether texts can be read, on every ground that they are on.

namespace utilia::desktop {
namespace {

using Role = QPalette::ColorRole;

struct Look {
    const char* name;
    QPalette palette;
    double needed;
};

std::vector<Look> looks() {
    return {{"light", legible(QApplication::style()->standardPalette()), kEnoughContrast},
            {"dark", darkPalette(), kEnoughContrast},
            {"high contrast, light", highContrastPalette(false), kHighContrast},
            {"high contrast, dark", highContrastPalette(true), kHighContrast}};
}

class DesktopPalette : public testing::Test {
    test::OffscreenApplication application_;
};

TEST(ContrastRatio, IsThatOfTheGuidelines) {
    EXPECT_DOUBLE_EQ(contrastRatio(Qt::black, Qt::white), 21);
    EXPECT_DOUBLE_EQ(contrastRatio(Qt::white, Qt::black), 21);
    EXPECT_DOUBLE_EQ(contrastRatio(Qt::red, Qt::red), 1);
    EXPECT_NEAR(contrastRatio(QColor(0x77, 0x77, 0x77), Qt::white), 4.48, 0.005);
    EXPECT_NEAR(contrastRatio(QColor(0x76, 0x76, 0x76), Qt::white), 4.54, 0.005);
    EXPECT_NEAR(contrastRatio(Qt::blue, Qt::white), 8.59, 0.005);
    EXPECT_NEAR(contrastRatio(Qt::blue, Qt::black), 2.44, 0.005);
}

TEST_F(DesktopPalette, KeepsTextsApartFromTheirGrounds) {
    constexpr std::pair<Role, Role> kTexts[] = {{QPalette::WindowText, QPalette::Window},
                                                {QPalette::Text, QPalette::Base},
                                                {QPalette::Text, QPalette::AlternateBase},
                                                {QPalette::ButtonText, QPalette::Button},
                                                {QPalette::ToolTipText, QPalette::ToolTipBase},
                                                {QPalette::HighlightedText, QPalette::Highlight},
                                                {QPalette::Link, QPalette::Base}};
    for (const Look& look : looks()) {
        for (const auto group : {QPalette::Active, QPalette::Inactive}) {
            for (const auto& [text, ground] : kTexts)
                EXPECT_GE(contrastRatio(look.palette.color(group, text),
                                        look.palette.color(group, ground)),
                          look.needed)
                    << look.name << ", group " << group << ": role " << text << " on " << ground;
        }
    }
}

TEST_F(DesktopPalette, KeepsTheTextsOfToolsApartFromTheList) {
    for (const Look& look : looks()) {
        for (const auto group : {QPalette::Active, QPalette::Inactive}) {
            for (const bool isSelected : {false, true}) {
                const auto row = agent::rowColors(look.palette, group, isSelected);
                const std::string place = std::string(look.name) + (isSelected ? ", selected" : "");
                EXPECT_GE(contrastRatio(row.strong, row.ground), look.needed) << place;
                EXPECT_GE(contrastRatio(row.soft, row.ground), look.needed) << place;
                EXPECT_GE(contrastRatio(row.lamp, row.ground), kEnoughContrast) << place;
            }
        }
    }
}

TEST_F(DesktopPalette, IsBlackOnWhiteOrWhiteOnBlackWithHighContrast) {
    EXPECT_TRUE(isDark(highContrastPalette(true)));
    EXPECT_FALSE(isDark(highContrastPalette(false)));
    for (const bool dark : {true, false}) {
        const QPalette palette = highContrastPalette(dark);
        EXPECT_DOUBLE_EQ(
            contrastRatio(palette.color(QPalette::Window), palette.color(QPalette::WindowText)),
            21);
        // What cannot be used is still read.
        EXPECT_GE(contrastRatio(palette.color(QPalette::Disabled, QPalette::ButtonText),
                                palette.color(QPalette::Button)),
                  kHighContrast);
    }
}

TEST_F(DesktopPalette, MakesSelectedTextsLegibleAndLeavesTheRest) {
    QPalette faint(Qt::gray, Qt::white);
    faint.setColor(QPalette::HighlightedText, Qt::white);
    faint.setColor(QPalette::Highlight, QColor(0xa0, 0xc0, 0xff));
    const QPalette mended = legible(faint);
    const QColor ground = mended.color(QPalette::Highlight);
    EXPECT_GE(contrastRatio(ground, Qt::white), kEnoughContrast);
    EXPECT_NEAR(ground.hslHue(), faint.color(QPalette::Highlight).hslHue(), 3);
    EXPECT_EQ(mended.color(QPalette::HighlightedText), QColor(Qt::white));
    EXPECT_EQ(mended.color(QPalette::Window), faint.color(QPalette::Window));
    EXPECT_EQ(legible(mended), mended);
}

}  // namespace
}  // namespace utilia::desktop
