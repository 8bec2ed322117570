#pragma once

#include <cstdint>
#include <memory>

#include "Common/Foundation/Result.h"
#include "Common/Foundation/Value.h"
#include "Common/Platform/ExportProgress.h"
#include "Common/Platform/Image.h"

namespace utilia {

// A picture, cut into pages from its top down, as a PDF document: one pixel is one point, every
// page is as wide as the picture and `pageHeight` pixels high (0, or more than the picture has: as
// high as the picture). The last page has what is left at its top. Fails as platform::PDFContext.
Result<Data> PDFPages(const std::shared_ptr<const platform::BitmapImageRep>& picture,
                      std::uint64_t pageHeight, const platform::ExportProgress& progress);

}  // namespace utilia
