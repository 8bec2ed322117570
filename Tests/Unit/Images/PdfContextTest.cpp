// The seam's PDF documents: more than CommonAuxiliary asks of them.

#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "Common/Platform/PDFContext.h"
#include "Tests/Unit/Images/PdfFixture.h"

using namespace utilia;
using namespace utilia::platform;
using namespace utilia::test;

namespace {

std::shared_ptr<const BitmapImageRep> shared(BitmapImageRep picture) {
    return std::make_shared<const BitmapImageRep>(std::move(picture));
}

std::unique_ptr<PDFContext> contextWith(PDFContext::Options options = {}) {
    auto context = PDFContext::create(std::move(options));
    EXPECT_TRUE(context.has_value());
    return *std::move(context);
}

constexpr PDFRect kPage{0, 0, 200, 100};

TEST(PDFContext, MakesTheSameBytesWithAnyNumberOfThreads) {
    const auto picture = shared(noisyPicture(700, 3000, false));
    const auto documentWith = [&](unsigned threads) {
        const auto pdf = contextWith({.maximumThreads = threads});
        for (std::uint32_t row = 0; row < 3000; row += 1000) {
            EXPECT_TRUE(pdf->beginPage({0, 0, 700, 1000}));
            EXPECT_TRUE(pdf->drawImage({picture, row, 1000}, {0, 0, 700, 1000}));
            EXPECT_TRUE(pdf->endPage());
        }
        return pdf->close().value();
    };
    const Data one = documentWith(1);
    expectPagesOf(readPdf(one), *picture, 1000);
    for (const unsigned threads : {0u, 2u, 3u, 16u, 0xffffffffu})
        EXPECT_EQ(documentWith(threads), one);
}

TEST(PDFContext, DrawsSeveralPicturesOnAPage) {
    const auto first = shared(gradientPicture(20, 10));
    const auto second = shared(noisyPicture(30, 40, false));
    const auto pdf = contextWith();
    ASSERT_TRUE(pdf->beginPage(kPage));
    ASSERT_TRUE(pdf->drawImage({first, 0, 10}, {1.5, 2, 40, 20}));
    ASSERT_TRUE(pdf->drawImage({second, 5, 7}, {-3, 0.125, 0.000001, 1e6}));
    ASSERT_TRUE(pdf->endPage());
    ASSERT_TRUE(pdf->beginPage({-10, 20.25, 3, 1e9}));
    ASSERT_TRUE(pdf->endPage());  // a blank one
    const auto pages = readPdf(pdf->close().value());
    ASSERT_EQ(pages.size(), 2u);
    ASSERT_EQ(pages[0].images.size(), 2u);
    EXPECT_EQ(pages[0].images[0].rgba, first->rgba);
    EXPECT_EQ(pages[0].images[0].matrix, (std::array<double, 6>{40, 0, 0, 20, 1.5, 2}));
    EXPECT_EQ(pages[0].images[1].rgba,
              Data(second->rgba.begin() + 5 * 30 * 4, second->rgba.begin() + 12 * 30 * 4));
    EXPECT_EQ(pages[0].images[1].matrix, (std::array<double, 6>{0.000001, 0, 0, 1e6, -3, 0.125}));
    EXPECT_EQ(pages[1].mediaBox, (std::array<double, 4>{-10, 20.25, -7, 20.25 + 1e9}));
    EXPECT_TRUE(pages[1].images.empty());
}

TEST(PDFContext, KeepsEachPicturesOwnProfile) {
    BitmapImageRep first = gradientPicture(8, 8);
    BitmapImageRep second = gradientPicture(9, 9);
    first.colourProfile = sampleProfile(200);
    second.colourProfile = sampleProfile(300);
    const auto pdf = contextWith();
    ASSERT_TRUE(pdf->beginPage(kPage));
    const auto one = shared(first);
    const auto other = shared(second);
    ASSERT_TRUE(pdf->drawImage({one, 0, 8}, kPage));
    ASSERT_TRUE(pdf->drawImage({other, 0, 9}, kPage));
    ASSERT_TRUE(pdf->drawImage({shared(gradientPicture(7, 7)), 0, 7}, kPage));
    ASSERT_TRUE(pdf->endPage());
    const auto pages = readPdf(pdf->close().value());
    EXPECT_EQ(pages.at(0).images.at(0).profile, first.colourProfile);
    EXPECT_EQ(pages.at(0).images.at(1).profile, second.colourProfile);
    EXPECT_TRUE(pages.at(0).images.at(2).profile.empty());
}

TEST(PDFContext, LeavesOutProfilesThatDoNotDescribeThePicture) {
    BitmapImageRep grey = greyPicture(8, 8);
    grey.colourProfile = sampleProfile(300, "GRAY");
    BitmapImageRep coloured = grey;
    coloured.rgba[8 * 7 * 4] ^= 1;  // in the last row
    BitmapImageRep inks = grey;
    inks.colourProfile = sampleProfile(300, "CMYK");
    BitmapImageRep broken = grey;
    broken.colourProfile = Data(3, 1);
    const auto pdf = contextWith();
    ASSERT_TRUE(pdf->beginPage(kPage));
    for (const BitmapImageRep& one : {grey, coloured, inks, broken}) {
        const auto picture = shared(one);
        ASSERT_TRUE(pdf->drawImage({picture, 0, 4}, kPage));
        ASSERT_TRUE(pdf->drawImage({picture, 4, 4}, kPage));
    }
    ASSERT_TRUE(pdf->endPage());
    const auto pages = readPdf(pdf->close().value());
    ASSERT_EQ(pages.at(0).images.size(), 8u);
    for (std::size_t i = 0; i < 8; ++i)
        EXPECT_EQ(pages.at(0).images.at(i).profile, i < 2 ? grey.colourProfile : Data()) << i;
}

TEST(PDFContext, KeepsWhatWasDrawnUntilItIsClosed) {
    const auto pdf = contextWith();
    const BitmapImageRep picture = noisyPicture(300, 2000);
    ASSERT_TRUE(pdf->beginPage({0, 0, 300, 2000}));
    ASSERT_TRUE(pdf->drawImage({shared(picture), 0, 2000}, {0, 0, 300, 2000}));
    ASSERT_TRUE(pdf->endPage());
    expectPagesOf(readPdf(pdf->close().value()), picture, 2000);
}

TEST(PDFContext, RefusesWhatIsNoPicture) {
    const auto picture = shared(gradientPicture(10, 20));
    const auto broken = shared({10, 20, Data(10 * 20 * 4 - 1), {}});
    const double none = std::numeric_limits<double>::quiet_NaN();
    const double endless = std::numeric_limits<double>::infinity();
    const std::pair<BitmapSlice, PDFRect> refused[] = {
        {{nullptr, 0, 1}, kPage},
        {{broken, 0, 1}, kPage},
        {{picture, 0, 0}, kPage},
        {{picture, 0, 21}, kPage},
        {{picture, 20, 1}, kPage},
        {{picture, 19, 2}, kPage},
        {{picture, 0xffffffff, 2}, kPage},
        {{picture, 0, 20}, {0, 0, 0, 1}},
        {{picture, 0, 20}, {0, 0, 1, -1}},
        {{picture, 0, 20}, {none, 0, 1, 1}},
        {{picture, 0, 20}, {0, 0, endless, 1}},
    };
    for (const auto& [slice, rectangle] : refused) {
        const auto pdf = contextWith();
        ASSERT_TRUE(pdf->beginPage(kPage));
        const auto drawn = pdf->drawImage(slice, rectangle);
        ASSERT_FALSE(drawn);
        EXPECT_TRUE(drawn.error().is(UtiliaErrorCode::Refused));
        EXPECT_EQ(drawn.error().description, "make a PDF document: the picture has no size");
        EXPECT_FALSE(pdf->endPage());
        EXPECT_FALSE(pdf->close());
    }
}

TEST(PDFContext, RefusesPagesWithoutSize) {
    const double none = std::numeric_limits<double>::quiet_NaN();
    for (const PDFRect& box : {PDFRect{0, 0, 0, 1}, PDFRect{0, 0, 1, 0}, PDFRect{0, 0, -1, 1},
                               PDFRect{0, none, 1, 1}, PDFRect{0, 0, HUGE_VAL, 1}}) {
        const auto pdf = contextWith();
        EXPECT_FALSE(pdf->beginPage(box));
        EXPECT_FALSE(pdf->beginPage(kPage)) << "it has failed already";
    }
}

TEST(PDFContext, RefusesCallsInTheWrongOrder) {
    const auto picture = shared(gradientPicture(4, 4));
    const BitmapSlice slice{picture, 0, 4};
    const std::function<bool(PDFContext&)> refused[] = {
        [&](PDFContext& pdf) { return pdf.drawImage(slice, kPage).has_value(); },
        [](PDFContext& pdf) { return pdf.endPage().has_value(); },
        [](PDFContext& pdf) { return pdf.close().has_value(); },
        [](PDFContext& pdf) { return pdf.beginPage(kPage) && pdf.beginPage(kPage); },
        [](PDFContext& pdf) { return pdf.beginPage(kPage) && pdf.close(); },
        [](PDFContext& pdf) { return pdf.beginPage(kPage) && pdf.endPage() && pdf.endPage(); },
        [&](PDFContext& pdf) {
            return pdf.beginPage(kPage) && pdf.endPage() && pdf.drawImage(slice, kPage);
        },
        [](PDFContext& pdf) {
            EXPECT_TRUE(pdf.beginPage(kPage) && pdf.endPage() && pdf.close());
            return pdf.close().has_value();
        },
        [](PDFContext& pdf) {
            EXPECT_TRUE(pdf.beginPage(kPage) && pdf.endPage() && pdf.close());
            return pdf.beginPage(kPage).has_value();
        },
    };
    std::size_t number = 0;
    for (const auto& calls : refused) EXPECT_FALSE(calls(*contextWith())) << number++;
}

TEST(PDFContext, CanBeGivenUpAtAnyMoment) {
    const auto picture = shared(noisyPicture(400, 3000));
    contextWith();
    const auto begun = contextWith();
    EXPECT_TRUE(begun->beginPage(kPage));
    const auto drawn = contextWith();
    EXPECT_TRUE(drawn->beginPage(kPage));
    EXPECT_TRUE(drawn->drawImage({picture, 0, 3000}, kPage));  // bands are under way
    const auto ended = contextWith();
    EXPECT_TRUE(ended->beginPage(kPage));
    EXPECT_TRUE(ended->drawImage({picture, 0, 3000}, kPage));
    EXPECT_TRUE(ended->endPage());
}

TEST(PDFContext, SaysThatItWasCancelled) {
    const auto picture = shared(noisyPicture(400, 3000));
    const auto pdf =
        contextWith({.pixelsExpected = 400 * 3000, .progress = [](double) { return false; }});
    ASSERT_TRUE(pdf->beginPage(kPage));
    auto result = pdf->drawImage({picture, 0, 3000}, kPage);
    if (result) result = pdf->endPage();
    if (result) result = pdf->close() ? Result<void>() : pdf->close().error();
    ASSERT_FALSE(result);
    EXPECT_TRUE(result.error().is(UtiliaErrorCode::Cancelled)) << result.error().description;
}

TEST(PDFContext, AsksForProgressAlsoWhereTheWholeIsNotKnown) {
    const auto picture = shared(noisyPicture(400, 3000));
    int calls = 0;
    const auto pdf = contextWith({.progress = [&calls](double) { return ++calls < 1; }});
    ASSERT_TRUE(pdf->beginPage(kPage));
    static_cast<void>(pdf->drawImage({picture, 0, 3000}, kPage));
    EXPECT_FALSE(pdf->endPage() && pdf->close());
    EXPECT_EQ(calls, 1);
}

}  // namespace
