// What CommonAuxiliary makes of an image as a PDF document, read with a reader of the tests' own.

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Common/UtiliaCommon/Auxiliary/ImageExport.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"
#include "Tests/Unit/Images/PdfFixture.h"

using namespace utilia;
using namespace utilia::platform;
using namespace utilia::test;

namespace fs = std::filesystem;

namespace {

Data contentOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

struct Cut {
    std::uint32_t width;
    std::uint32_t height;
    std::uint64_t pageHeight;
    std::size_t pages;
    std::uint32_t heightOfPages;
};

void PrintTo(const Cut& cut, std::ostream* out) {
    *out << cut.width << " x " << cut.height << " by " << cut.pageHeight;
}

class PdfCuts : public testing::TestWithParam<Cut> {};

TEST_P(PdfCuts, ShowThePictureFromItsTopDown) {
    const Cut& cut = GetParam();
    for (const bool isOpaque : {true, false}) {
        const BitmapImageRep picture = gradientPicture(cut.width, cut.height, isOpaque);
        const auto pages = readPdf(pdfOf(picture, cut.pageHeight));
        EXPECT_EQ(pages.size(), cut.pages);
        expectPagesOf(pages, picture, cut.heightOfPages);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cuts, PdfCuts,
    testing::Values(Cut{30, 2500, 1000, 3, 1000},              // a short last page
                    Cut{30, 3000, 1000, 3, 1000},              // none
                    Cut{30, 1001, 1000, 2, 1000},              // a last page of one row
                    Cut{30, 500, 0, 1, 500},                   // 0: one page
                    Cut{30, 500, 500, 1, 500},                 // as high as the image
                    Cut{30, 500, 501, 1, 500},                 // higher
                    Cut{30, 500, 499, 2, 499},                 // a row less
                    Cut{30, 500, 1ull << 32, 1, 500},          // more than 32 bits: not 0
                    Cut{30, 500, (1ull << 32) + 100, 1, 500},  // and not 100
                    Cut{30, 500, ~0ull, 1, 500},               // not -1
                    Cut{1, 1, 0, 1, 1}, Cut{1, 1, 1, 1, 1}, Cut{1, 7, 1, 7, 1},
                    Cut{2000, 1, 1, 1, 1}, Cut{3, 40'000, 0, 1, 40'000},  // past 15 bits
                    Cut{2, 70'000, 35'000, 2, 35'000},                    // past 16 bits
                    Cut{40'000, 3, 2, 2, 2},       // rows past 16 bits of bytes
                    Cut{2, 5000, 1, 5000, 1},      // many pages
                    Cut{700, 1200, 0, 1, 1200}));  // several bands

TEST(PdfPages, HaveTheLastRowsAtTheTopOfTheirPage) {
    const auto pages = readPdf(pdfOf(gradientPicture(10, 2500), 1000));
    ASSERT_EQ(pages.size(), 3u);
    const PdfImage& last = pages.back().images.at(0);
    EXPECT_EQ(last.height, 500u);
    EXPECT_EQ(last.matrix, (std::array<double, 6>{10, 0, 0, 500, 0, 500}));
    EXPECT_EQ(pages.back().mediaBox, (std::array<double, 4>{0, 0, 10, 1000}));
}

TEST(PdfPages, KeepWhatCannotBeCompressed) {
    const BitmapImageRep picture = noisyPicture(900, 1300, false);
    for (const std::uint32_t pageHeight : {1300u, 700u}) {
        const Data document = pdfOf(picture, pageHeight);
        expectPagesOf(readPdf(document), picture, pageHeight);
        EXPECT_LT(document.size(), picture.rgba.size() * 101 / 100);
    }
}

TEST(PdfPages, KeepColoursBehindFullTransparency) {
    const BitmapImageRep picture = pictureOf(64, 64, [](std::uint32_t x, std::uint32_t y) {
        return Pixel{static_cast<std::uint8_t>(x), static_cast<std::uint8_t>(y), 99, 0};
    });
    expectPagesOf(readPdf(pdfOf(picture, 0)), picture, 64);
}

TEST(PdfPages, HaveAMaskOnlyWhereThePictureIsTransparent) {
    BitmapImageRep picture = gradientPicture(20, 300);
    picture.rgba[(150 * 20 + 19) * 4 + 3] = 254;  // one pixel on the second of three pages
    const auto pages = readPdf(pdfOf(picture, 100));
    ASSERT_EQ(pages.size(), 3u);
    EXPECT_FALSE(pages[0].images.at(0).hasMask);
    EXPECT_TRUE(pages[1].images.at(0).hasMask);
    EXPECT_FALSE(pages[2].images.at(0).hasMask);
    expectPagesOf(pages, picture, 100);
}

TEST(PdfPages, AreGreyWhereThePictureIs) {
    BitmapImageRep picture = greyPicture(300, 300);
    const auto grey = readPdf(pdfOf(picture, 0));
    EXPECT_TRUE(grey.at(0).images.at(0).isGrey);
    expectPagesOf(grey, picture, 300);
    for (const std::size_t channel : {0u, 1u, 2u}) {
        BitmapImageRep tinted = picture;
        tinted.rgba[(299 * 300 + 299) * 4 + channel] ^= 1;
        const auto pages = readPdf(pdfOf(tinted, 150));
        EXPECT_TRUE(pages.at(0).images.at(0).isGrey);
        EXPECT_FALSE(pages.at(1).images.at(0).isGrey) << "channel " << channel;
        expectPagesOf(pages, tinted, 150);
    }
    const BitmapImageRep noise = noisyPicture(300, 300);
    BitmapImageRep greyNoise = noise;
    for (std::size_t i = 0; i < greyNoise.rgba.size(); i += 4)
        greyNoise.rgba[i + 1] = greyNoise.rgba[i + 2] = greyNoise.rgba[i];
    EXPECT_LT(pdfOf(greyNoise, 0).size(), pdfOf(noise, 0).size() * 2 / 5);
}

TEST(PdfPages, ShareTheColourProfileOfThePicture) {
    BitmapImageRep picture = gradientPicture(40, 90);
    picture.colourProfile = sampleProfile(3000);
    const Data document = pdfOf(picture, 30);
    const auto pages = readPdf(document);
    ASSERT_EQ(pages.size(), 3u);
    for (const PdfPage& page : pages) EXPECT_EQ(page.images.at(0).profile, picture.colourProfile);
    expectPagesOf(pages, picture, 30);
    const std::string text(document.begin(), document.end());
    const std::string key = "/Alternate";
    EXPECT_EQ(text.find(key), text.rfind(key)) << "the profile is there more than once";
}

TEST(PdfPages, KeepTheProfileOfAGreyPicture) {
    BitmapImageRep picture = greyPicture(40, 40);
    picture.colourProfile = sampleProfile();
    const auto pages = readPdf(pdfOf(picture, 0));
    EXPECT_EQ(pages.at(0).images.at(0).profile, picture.colourProfile);
    expectPagesOf(pages, picture, 40);
}

TEST(PdfPages, AreInGreyWithAProfileOfGrey) {
    BitmapImageRep picture = greyPicture(60, 70);
    picture.colourProfile = sampleProfile(344, "GRAY");
    const auto pages = readPdf(pdfOf(picture, 40));
    for (const PdfPage& page : pages) {
        EXPECT_TRUE(page.images.at(0).isGrey);
        EXPECT_EQ(page.images.at(0).profile, picture.colourProfile);
    }
    expectPagesOf(pages, picture, 40);
    BitmapImageRep clear = picture;
    clear.rgba[3] = 7;
    expectPagesOf(readPdf(pdfOf(clear, 40)), clear, 40);
    // One pixel that is not grey makes the whole of it one of RGB.
    BitmapImageRep tinted = picture;
    tinted.rgba[1] ^= 1;
    for (const PdfPage& page : readPdf(pdfOf(tinted, 40)))
        EXPECT_TRUE(page.images.at(0).profile.empty());
}

TEST(PdfPages, AreTheSameBytesForTheSamePicture) {
    const BitmapImageRep picture = noisyPicture(700, 2100, false);
    const Data first = pdfOf(picture, 1000);
    EXPECT_EQ(pdfOf(picture, 1000), first);
    EXPECT_NE(pdfOf(picture, 999), first);
}

// Formats/PDFPages.md explains these bytes.
TEST(PdfPages, AreTheBytesThatTheirDescriptionShows) {
    const BitmapImageRep picture{2, 1, {255, 0, 0, 255, 0, 255, 0, 128}, {}};
    EXPECT_EQ(pdfOf(picture, 0), contentOf(fs::path(test::places::kTestData) / "two-pixels.pdf"));
}

TEST(PdfPages, ShowTheFirstRepresentation) {
    const BitmapImageRep first = noisyPicture(64, 32);
    const auto image = imageOf(first);
    ASSERT_TRUE(image->addRepresentation(gradientPicture(90, 90)));
    ASSERT_TRUE(image->addRepresentation(gradientPicture(16, 16)));
    const auto document = CommonAuxiliary::sharedInstance().dataForImageAsPDF(image, 0);
    expectPagesOf(readPdf(document.value()), first, 32);
    // Also of a file of several pages.
    const auto file = Image::initWithData(image->TIFFRepresentation().value());
    EXPECT_EQ(CommonAuxiliary::sharedInstance().dataForImageAsPDF(file, 0), document);
}

TEST(PdfPages, CanBeMadeOfAFileThatAnImageRefersTo) {
    const TemporaryFolder folder;
    const BitmapImageRep picture = gradientPicture(33, 44);
    const std::string path = folder.path() / "picture.tiff";
    const Data tiff = imageOf(picture)->TIFFRepresentation().value();
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(tiff.data()),
               static_cast<std::streamsize>(tiff.size()));
    const auto document =
        CommonAuxiliary::sharedInstance().dataForImageAsPDF(Image::initByReferencingFile(path), 11);
    expectPagesOf(readPdf(document.value()), picture, 11);
}

TEST(PdfPages, AreNoneWithoutAPicture) {
    const TestLog log;
    const TemporaryFolder folder;
    auto& auxiliary = CommonAuxiliary::sharedInstance();
    const std::string path = folder.path() / "none.pdf";
    EXPECT_FALSE(auxiliary.dataForImageAsPDF(nullptr, 0));
    EXPECT_FALSE(auxiliary.saveImageAsPDF(nullptr, path, 0));
    const auto missing = Image::initByReferencingFile((folder.path() / "missing.tiff").string());
    EXPECT_FALSE(auxiliary.dataForImageAsPDF(missing, 100));
    EXPECT_FALSE(auxiliary.saveImageAsPDF(missing, path, 100));
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(exportedPDF(nullptr, 0).error().description, "there is no image");
    EXPECT_EQ(exportedPDF(missing, 0).error().description, "representation 0 of an image");
    EXPECT_FALSE(fs::exists(path));
}

TEST(PdfPages, OfADamagedImageAreNoneAndTouchNoFile) {
    const TestLog log;
    const TemporaryFolder folder;
    const Data tiff = imageOf(noisyPicture(64, 64))->TIFFRepresentation().value();
    const std::string damaged = folder.path() / "damaged.tiff";
    std::ofstream(damaged, std::ios::binary)
        .write(reinterpret_cast<const char*>(tiff.data()),
               static_cast<std::streamsize>(tiff.size() / 2));
    const fs::path path = folder.path() / "kept.pdf";
    std::ofstream(path) << "before";
    EXPECT_FALSE(CommonAuxiliary::sharedInstance().saveImageAsPDF(
        Image::initByReferencingFile(damaged), path.string(), 10));
    EXPECT_EQ(contentOf(path), (Data{'b', 'e', 'f', 'o', 'r', 'e'}));
}

TEST(PdfPages, AreSavedInPlace) {
    const TemporaryFolder folder;
    const BitmapImageRep picture = gradientPicture(50, 120);
    auto& auxiliary = CommonAuxiliary::sharedInstance();
    const fs::path path = folder.path() / "pages.pdf";
    ASSERT_TRUE(auxiliary.saveImageAsPDF(imageOf(picture), path.string(), 50));
    EXPECT_EQ(contentOf(path), pdfOf(picture, 50));

    // The same file, whatever its names are, and its mode stays.
    const fs::path other = folder.path() / "other.pdf";
    const fs::path link = folder.path() / "link.pdf";
    fs::create_hard_link(path, other);
    fs::create_symlink(path.filename(), link);
    fs::permissions(path, fs::perms(0640));
    ASSERT_TRUE(auxiliary.saveImageAsPDF(imageOf(picture), link.string(), 0));
    EXPECT_EQ(contentOf(other), pdfOf(picture, 0));
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_EQ(fs::status(path).permissions(), fs::perms(0640));
}

TEST(PdfPages, TellTheirProgress) {
    std::vector<double> told;
    const auto document = CommonAuxiliary::sharedInstance().dataForImageAsPDF(
        imageOf(noisyPicture(800, 3000, false)), 1000, [&](double done) {
            told.push_back(done);
            return true;
        });
    ASSERT_TRUE(document);
    ASSERT_GE(told.size(), 10u);
    EXPECT_TRUE(std::is_sorted(told.begin(), told.end()));
    EXPECT_EQ(std::adjacent_find(told.begin(), told.end()), told.end());
    EXPECT_GT(told.front(), 0);
    EXPECT_LT(told.front(), 0.2);
    EXPECT_EQ(told.back(), 1);
}

TEST(PdfPages, EndWhenProgressSaysSoWhereverTheyAre) {
    const TestLog log;
    const TemporaryFolder folder;
    const auto image = imageOf(noisyPicture(500, 2000, false));
    auto& auxiliary = CommonAuxiliary::sharedInstance();
    std::size_t calls = 0;
    const auto countTo = [&calls](std::size_t last) {
        return [&calls, last](double) { return ++calls < last; };
    };
    ASSERT_TRUE(auxiliary.dataForImageAsPDF(image, 700, countTo(~std::size_t{0})));
    const std::size_t all = calls;
    ASSERT_GE(all, 6u);
    const fs::path path = folder.path() / "cancelled.pdf";
    for (std::size_t last = 1; last <= all; ++last) {
        calls = 0;
        EXPECT_FALSE(auxiliary.saveImageAsPDF(image, path.string(), 700, countTo(last)));
        EXPECT_EQ(calls, last) << "asked again after the end";
        EXPECT_FALSE(fs::exists(path));
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST(PdfPages, AreMadeOnSeveralThreadsAtOnce) {
    constexpr std::size_t kThreads = 3;
    std::vector<BitmapImageRep> pictures;
    std::vector<std::shared_ptr<Image>> images;
    for (std::uint32_t i = 0; i < kThreads; ++i) {
        pictures.push_back(noisyPicture(300 + i, 1500, false));
        images.push_back(imageOf(pictures.back()));
    }
    std::vector<std::optional<Data>> documents(kThreads);
    {
        std::vector<std::jthread> threads;
        for (std::size_t i = 0; i < kThreads; ++i) {
            threads.emplace_back([&, i] {
                documents[i] = CommonAuxiliary::sharedInstance().dataForImageAsPDF(images[i], 400);
            });
        }
    }
    for (std::size_t i = 0; i < kThreads; ++i) {
        ASSERT_TRUE(documents[i]);
        expectPagesOf(readPdf(*documents[i]), pictures[i], 400);
    }
}

TEST(PdfPages, CanBeCancelledFromAnotherThread) {
    std::atomic<bool> isCancelled{false};
    std::atomic<bool> isUnderWay{false};
    const auto image = imageOf(noisyPicture(600, 8000));
    std::optional<Data> document;
    {
        const std::jthread exporting([&] {
            document =
                CommonAuxiliary::sharedInstance().dataForImageAsPDF(image, 0, [&](double done) {
                    isUnderWay = true;
                    isUnderWay.notify_all();
                    // Waits for the other thread, once, so that there is something left to end.
                    if (done < 0.5) isCancelled.wait(false);
                    return !isCancelled;
                });
        });
        isUnderWay.wait(false);
        isCancelled = true;
        isCancelled.notify_all();
    }
    EXPECT_FALSE(document);
}

TEST(PdfPages, EndWhenProgressThrows) {
    const auto document = CommonAuxiliary::sharedInstance().dataForImageAsPDF(
        imageOf(gradientPicture(50, 50)), 10,
        [](double) -> bool { throw std::runtime_error("no more"); });
    EXPECT_FALSE(document);
}

TEST(PdfPages, KeepAnExistingFileWhenTheyAreCancelled) {
    const TemporaryFolder folder;
    const fs::path path = folder.path() / "kept.pdf";
    std::ofstream(path) << "before";
    EXPECT_FALSE(CommonAuxiliary::sharedInstance().saveImageAsPDF(
        imageOf(gradientPicture(50, 50)), path.string(), 10, [](double) { return false; }));
    EXPECT_EQ(contentOf(path), (Data{'b', 'e', 'f', 'o', 'r', 'e'}));
}

}  // namespace
