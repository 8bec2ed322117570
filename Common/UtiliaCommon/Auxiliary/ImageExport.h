#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "Common/Foundation/Result.h"
#include "Common/Foundation/Value.h"
#include "Common/Platform/ExportProgress.h"
#include "Common/Platform/Image.h"

// The exports of CommonAuxiliary for those who must say why one failed, such as the control program.
// An empty image is refused. Throws std::bad_alloc.

namespace utilia {

Result<Data> exportedPDF(const std::shared_ptr<platform::Image>& image, std::uint64_t pageHeight,
                         const platform::ExportProgress& progress);
Result<Data> exportedBitmap(const std::shared_ptr<platform::Image>& image,
                            platform::BitmapImageFileType type,
                            const platform::ExportProgress& progress);
// Writes what was exported in place.
Result<void> saveExported(const Result<Data>& data, std::string_view path);

}  // namespace utilia
