#include "Common/UtiliaCommon/Auxiliary/ImageExport.h"

#include "Common/Platform/FileManager.h"
#include "Common/UtiliaCommon/Auxiliary/PDFPagesInternal.h"

namespace utilia {
namespace {

Error noImage() { return Error::utilia(UtiliaErrorCode::Refused, "there is no image"); }

}  // namespace

Result<Data> exportedPDF(const std::shared_ptr<platform::Image>& image, std::uint64_t pageHeight,
                         const platform::ExportProgress& progress) {
    if (!image) return noImage();
    const auto picture = image->CGImage();
    if (!picture) return picture.error();
    return PDFPages(*picture, pageHeight, progress);
}

Result<Data> exportedBitmap(const std::shared_ptr<platform::Image>& image,
                            platform::BitmapImageFileType type,
                            const platform::ExportProgress& progress) {
    if (!image) return noImage();
    return image->representationUsingType(0, type, progress);
}

Result<void> saveExported(const Result<Data>& data, std::string_view path) {
    if (!data) return data.error();
    return platform::FileManager::writeToFile(path, *data);
}

}  // namespace utilia
