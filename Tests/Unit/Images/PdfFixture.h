#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Common/Platform/Image.h"
#include "Common/UtiliaCommon/Auxiliary/CommonAuxiliary.h"
#include "Tests/Support/PdfReader.h"
#include "Tests/Support/SamplePictures.h"

namespace utilia::test {

inline std::shared_ptr<platform::Image> imageOf(platform::BitmapImageRep picture) {
    auto image = platform::Image::initWithBitmap(std::move(picture));
    EXPECT_NE(image, nullptr);
    return image;
}

inline Data pdfOf(const platform::BitmapImageRep& picture, std::uint64_t pageHeight) {
    auto data = CommonAuxiliary::sharedInstance().dataForImageAsPDF(imageOf(picture), pageHeight);
    EXPECT_TRUE(data.has_value());
    return data.value_or(Data());
}

// The pages show the picture from its top down, pixel for pixel, each at its place.
inline void expectPagesOf(const std::vector<PdfPage>& pages,
                          const platform::BitmapImageRep& picture, std::uint32_t pageHeight) {
    const std::uint32_t width = picture.pixelsWide;
    std::uint32_t row = 0;
    for (const PdfPage& page : pages) {
        EXPECT_EQ(page.mediaBox, (std::array<double, 4>{0, 0, static_cast<double>(width),
                                                        static_cast<double>(pageHeight)}));
        ASSERT_EQ(page.images.size(), 1u);
        const PdfImage& image = page.images.front();
        const std::uint32_t rows = std::min(pageHeight, picture.pixelsHigh - row);
        ASSERT_EQ(image.width, width);
        ASSERT_EQ(image.height, rows);
        EXPECT_EQ(image.matrix, (std::array<double, 6>{static_cast<double>(width), 0, 0,
                                                       static_cast<double>(rows), 0,
                                                       static_cast<double>(pageHeight - rows)}));
        const std::size_t from = std::size_t{row} * width * 4;
        EXPECT_TRUE(std::equal(image.rgba.begin(), image.rgba.end(),
                               picture.rgba.begin() + static_cast<std::ptrdiff_t>(from),
                               picture.rgba.begin() +
                                   static_cast<std::ptrdiff_t>(from + image.rgba.size())))
            << "other pixels on the page of row " << row;
        EXPECT_EQ(page.hasGroup, image.hasMask);
        row += rows;
    }
    EXPECT_EQ(row, picture.pixelsHigh);
}

}  // namespace utilia::test
