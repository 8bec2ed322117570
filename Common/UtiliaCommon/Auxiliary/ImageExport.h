#pragma once

#include <cstdint>
#include <memory>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Result.h"
#include "Common/Foundation/Value.h"
#include "Common/Platform/ExportProgress.h"
#include "Common/Platform/Image.h"

// The exports of CommonAuxiliary for those who tell people why one failed. The content is the same,
// byte for byte; who wants it in a file writes it there (platform::FileManager).
//
// Both fail, without a line in the log, with the code
//   Refused      no image, a damaged one, one that the format cannot hold (JPEG: 65,500 pixels a
//                side; GIF: 65,535; BMP: 2 GiB), or not enough memory;
//   NotFound     an image without representations;
//   Unavailable  the module that does the work is missing;
//   Cancelled    progress wants no more;
// where a document runs out of memory, it may also be the system's own error for that (ENOMEM).
// The description says in plain English what is wrong. The image stays as it is.
//
// Threads: any, an image one at a time; progress is told on the calling one.

namespace utilia {

// The first representation as a PDF document, cut into pages of so many pixels from the top; 0 for
// one page.
UTILIA_EXPORT Result<Data> exportedPDF(const std::shared_ptr<platform::Image>& image,
                                       std::uint64_t pageHeight,
                                       const platform::ExportProgress& progress = {});

// The first representation in a bitmap format.
UTILIA_EXPORT Result<Data> exportedBitmap(const std::shared_ptr<platform::Image>& image,
                                          platform::BitmapImageFileType type,
                                          const platform::ExportProgress& progress = {});

}  // namespace utilia
