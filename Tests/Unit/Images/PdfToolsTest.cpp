// What other people's programs say about our PDF files, and how they show them.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Unit/Images/PdfFixture.h"

using namespace utilia;
using namespace utilia::platform;
using namespace utilia::test;
using testing::HasSubstr;
using testing::Not;

namespace fs = std::filesystem;

namespace {

std::string contentOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

class PdfTools : public testing::Test {
protected:
    // The picture as a file.
    std::string save(const BitmapImageRep& picture, std::uint64_t pageHeight) {
        const std::string path = folder_.path() / "pages.pdf";
        EXPECT_TRUE(
            CommonAuxiliary::sharedInstance().saveImageAsPDF(imageOf(picture), path, pageHeight));
        return path;
    }

    // What a program prints; it must have nothing to complain about.
    std::string outputOf(const std::string& program, std::vector<std::string> arguments) {
        ChildProcessOptions options;
        options.standardOutput = folder_.path() / "output";
        options.standardError = folder_.path() / "complaints";
        options.diesWithTest = true;
        auto child = ChildProcess::program("/usr/bin/" + program, std::move(arguments), options);
        EXPECT_EQ(child.waitForExit(std::chrono::seconds(60)), 0) << program;
        EXPECT_EQ(contentOf(options.standardError), "") << program;
        return contentOf(options.standardOutput);
    }

    // A page as it is drawn: RGB rows. Poppler makes pictures a dot larger than they are, and mixes
    // pixels that are enlarged by less than four; so a pixel has four by four dots here, and one
    // in their middle is looked at.
    static constexpr std::uint32_t kDots = 4;
    struct Rendered {
        std::uint32_t width = 0;
        std::uint32_t height = 0;
        std::string rgb;
    };
    Rendered render(const std::string& path, std::size_t page) {
        const std::string number = std::to_string(page);
        const std::string root = folder_.path() / ("page" + number);
        outputOf("pdftoppm", {"-r", std::to_string(72 * kDots), "-singlefile", "-f", number, "-l",
                              number, path, root});
        std::ifstream file(root + ".ppm", std::ios::binary);
        std::string kind;
        int most = 0;
        Rendered rendered;
        file >> kind >> rendered.width >> rendered.height >> most;
        file.get();
        EXPECT_EQ(kind, "P6");
        EXPECT_EQ(most, 255);
        rendered.rgb = {std::istreambuf_iterator<char>(file), {}};
        EXPECT_EQ(rendered.rgb.size(), std::size_t{rendered.width} * rendered.height * 3);
        return rendered;
    }

    // Compares a page with the picture's rows from `row` on, over white; `tolerance` is what may
    // be lost in mixing.
    void expectRendered(const Rendered& page, const BitmapImageRep& picture, std::uint32_t row,
                        int tolerance) {
        ASSERT_EQ(page.width, picture.pixelsWide * kDots);
        std::size_t wrong = 0;
        for (std::uint32_t y = 0; y < page.height / kDots; ++y) {
            for (std::uint32_t x = 0; x < picture.pixelsWide; ++x) {
                for (std::size_t channel = 0; channel < 3; ++channel) {
                    int wanted = 255;
                    if (row + y < picture.pixelsHigh) {
                        const std::uint8_t* pixel =
                            picture.rgba.data() +
                            (std::size_t{row + y} * picture.pixelsWide + x) * 4;
                        wanted = 255 - (255 - pixel[channel]) * pixel[3] / 255;
                    }
                    const std::size_t dot =
                        (std::size_t{y} * kDots + kDots / 2) * page.width + x * kDots + kDots / 2;
                    const std::size_t at = dot * 3 + channel;
                    const int found = static_cast<std::uint8_t>(page.rgb[at]);
                    wrong += std::abs(found - wanted) > tolerance;
                }
            }
        }
        EXPECT_EQ(wrong, 0u);
    }

    const TemporaryFolder folder_;
};

TEST_F(PdfTools, FindNothingWrong) {
    const struct {
        BitmapImageRep picture;
        std::uint64_t pageHeight;
    } documents[] = {
        {gradientPicture(1, 1), 0},          {gradientPicture(300, 2500), 1000},
        {noisyPicture(700, 1700, false), 0}, {greyPicture(200, 300), 7},
        {gradientPicture(3, 40'000), 0},     {screenshotPicture(800, 3000), 1000},
    };
    for (const auto& [picture, pageHeight] : documents) {
        const std::string path = save(picture, pageHeight);
        EXPECT_THAT(outputOf("qpdf", {"--check", path}),
                    HasSubstr("No syntax or stream encoding errors found"));
    }
}

TEST_F(PdfTools, CountThePagesAndTheirSize) {
    const std::string text =
        outputOf("pdfinfo", {"-l", "3", save(gradientPicture(60, 2500), 1000)});
    EXPECT_THAT(text, testing::ContainsRegex("Pages: +3\n"));
    for (const char* page : {"1", "2", "3"}) {
        EXPECT_THAT(text,
                    testing::ContainsRegex("Page +" + std::string(page) + " size: +60 x 1000 pts"));
    }
    EXPECT_THAT(text, testing::ContainsRegex("PDF version: +1.7"));
    EXPECT_THAT(text, testing::ContainsRegex("Encrypted: +no"));
    EXPECT_THAT(text, Not(HasSubstr("CreationDate")));
    EXPECT_THAT(text, Not(HasSubstr("Producer")));
}

TEST_F(PdfTools, ShowEveryPixelOfAnOpaquePicture) {
    for (const BitmapImageRep& picture : {gradientPicture(123, 456), noisyPicture(300, 450),
                                          greyPicture(200, 333), screenshotPicture(640, 900)}) {
        const std::string path = save(picture, 200);
        for (std::uint32_t row = 0, page = 1; row < picture.pixelsHigh; row += 200, ++page) {
            const Rendered rendered = render(path, page);
            EXPECT_EQ(rendered.height, 200 * kDots);
            expectRendered(rendered, picture, row, 0);
        }
    }
}

TEST_F(PdfTools, ShowEveryPixelOfATransparentPictureOverWhite) {
    for (const BitmapImageRep& picture :
         {gradientPicture(123, 456, false), noisyPicture(300, 450, false)}) {
        const std::string path = save(picture, 250);
        expectRendered(render(path, 1), picture, 0, 1);
        expectRendered(render(path, 2), picture, 250, 1);
    }
}

TEST_F(PdfTools, ShowPicturesTallerThan15Bits) {
    const BitmapImageRep picture = gradientPicture(5, 33'000);
    const Rendered rendered = render(save(picture, 0), 1);
    EXPECT_EQ(rendered.height, 33'000 * kDots);
    expectRendered(rendered, picture, 0, 0);
}

// One line for each image: page, number, type, width, height, color, comp, bpc, enc, …
TEST_F(PdfTools, ListMasksOnlyWhereThereIsTransparency) {
    BitmapImageRep picture = gradientPicture(40, 250);
    picture.rgba[3] = 0;
    std::istringstream lines(outputOf("pdfimages", {"-list", save(picture, 100)}));
    std::vector<std::string> found;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string page, number, type, width, height, color, components, bits, encoding;
        words >> page >> number >> type >> width >> height >> color >> components >> bits >>
            encoding;
        if (type == "image" || type == "smask") {
            std::string all = page;
            for (const auto& word : {type, width, height, color, components, bits, encoding})
                all += " " + word;
            found.push_back(all);
        }
    }
    EXPECT_EQ(found, (std::vector<std::string>{
                         "1 image 40 100 rgb 3 8 image", "1 smask 40 100 gray 1 8 image",
                         "2 image 40 100 rgb 3 8 image", "3 image 40 50 rgb 3 8 image"}));
}

TEST_F(PdfTools, ListGreyPicturesAsGrey) {
    const std::string text = outputOf("pdfimages", {"-list", save(greyPicture(40, 50), 0)});
    EXPECT_THAT(text, HasSubstr(" gray "));
    EXPECT_THAT(text, Not(HasSubstr(" rgb ")));
}

}  // namespace
