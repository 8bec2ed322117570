#include "Common/UtiliaCommon/Auxiliary/PDFPagesInternal.h"

#include <algorithm>
#include <utility>

#include "Common/Platform/PDFContext.h"

namespace utilia {

using platform::BitmapImageRep;
using platform::PDFContext;
using platform::PDFRect;

Result<Data> PDFPages(const std::shared_ptr<const BitmapImageRep>& picture,
                      std::uint64_t pageHeight, const platform::ExportProgress& progress) {
    const std::uint32_t width = picture->pixelsWide;
    const std::uint32_t height = picture->pixelsHigh;
    const std::uint32_t pageRows =
        pageHeight == 0 || height <= pageHeight ? height : static_cast<std::uint32_t>(pageHeight);
    const PDFRect mediaBox{0, 0, static_cast<double>(width), static_cast<double>(pageRows)};

    auto context =
        PDFContext::create({.pixelsExpected = std::uint64_t{width} * height, .progress = progress});
    if (!context) return std::move(context).error();
    PDFContext& pdf = **context;
    for (std::uint32_t remaining = height; remaining != 0;) {
        const std::uint32_t rows = std::min(remaining, pageRows);
        const PDFRect place{0, static_cast<double>(pageRows - rows), mediaBox.width,
                            static_cast<double>(rows)};
        if (auto begun = pdf.beginPage(mediaBox); !begun) return begun.error();
        if (auto drawn = pdf.drawImage({picture, height - remaining, rows}, place); !drawn)
            return drawn.error();
        if (auto ended = pdf.endPage(); !ended) return ended.error();
        remaining -= rows;
    }
    return pdf.close();
}

}  // namespace utilia
