#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Result.h"
#include "Common/Foundation/Value.h"
#include "Common/Platform/ExportProgress.h"
#include "Common/Platform/Image.h"

namespace utilia::platform {

// In points, from the lower left corner of the page.
struct UTILIA_EXPORT PDFRect {
    double x = 0;
    double y = 0;
    double width = 0;
    double height = 0;
};

// Whole rows of a bitmap, which it shares.
struct UTILIA_EXPORT BitmapSlice {
    std::shared_ptr<const BitmapImageRep> bitmap;
    std::uint32_t firstRow = 0;
    std::uint32_t rowCount = 0;
};

// A PDF document in the making: pages with pictures on them, which keep every bit of their pixels,
// transparency and colour profile included; a profile that does not describe them is left out.
//
//     auto pdf = PDFContext::create({.pixelsExpected = 1440 * 900});
//     … (*pdf)->beginPage({0, 0, 1440, 900}); drawImage(…); endPage();
//     Result<Data> document = (*pdf)->close();
//
// Pages are begun and ended one at a time, and stand in the document in that order. Pictures are
// compressed on several threads, at most a few bands of rows ahead of what is in the document
// already; so besides the pictures there are the document and a few megabytes. The same calls make
// the same bytes, on every machine: nothing in them tells when or where.
//
// Any function that fails ends the work: the later ones fail, too, and there is no document. What
// makes them fail is progress that answers false (UtiliaErrorCode::Cancelled), and calls in the
// wrong order, empty or broken slices and rectangles, and lack of memory (Refused).
//
// The module that does this is loaded by create().
//
// Threads: one at a time.
class UTILIA_EXPORT PDFContext final {
public:
    struct Options {
        // All pixels that will be drawn, for progress to be a share of; 0 where that is not known.
        std::uint64_t pixelsExpected = 0;
        // Called while a picture is drawn, a page ended, and the document closed.
        ExportProgress progress = {};
        // How many threads compress at most, the caller's included, up to 64; 0 for one for each
        // processor, and four at most. The caller's does it all where others cannot be started.
        unsigned maximumThreads = 0;
    };

    // Fails with UtiliaErrorCode::Unavailable without the module.
    static Result<std::unique_ptr<PDFContext>> create(Options options);

    PDFContext(const PDFContext&) = delete;
    PDFContext& operator=(const PDFContext&) = delete;
    ~PDFContext();

    Result<void> beginPage(const PDFRect& mediaBox);
    // The slice's rows fill the rectangle, the first one at its top. Its pixels stay as they are
    // until the document is closed, which the context sees to.
    Result<void> drawImage(const BitmapSlice& slice, const PDFRect& rectangle);
    Result<void> endPage();
    // The whole document, once; it takes at least a page.
    Result<Data> close();

private:
    struct Implementation;
    explicit PDFContext(std::unique_ptr<Implementation> implementation);
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace utilia::platform
