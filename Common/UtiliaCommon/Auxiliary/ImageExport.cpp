#include "Common/UtiliaCommon/Auxiliary/ImageExport.h"

#include <new>

#include "Common/UtiliaCommon/Auxiliary/PDFPagesInternal.h"

namespace utilia {
namespace {

// Saying that memory ran out takes less of it than what did not fit.
template <class Function>
Result<Data> orRefusedWithoutMemory(const std::shared_ptr<platform::Image>& image,
                                    Function function) {
    try {
        if (!image) return Error::utilia(UtiliaErrorCode::Refused, "there is no image");
        return function();
    } catch (const std::bad_alloc&) {
        return Error::utilia(UtiliaErrorCode::Refused, "image: not enough memory");
    }
}

}  // namespace

Result<Data> exportedPDF(const std::shared_ptr<platform::Image>& image, std::uint64_t pageHeight,
                         const platform::ExportProgress& progress) {
    return orRefusedWithoutMemory(image, [&]() -> Result<Data> {
        const auto picture = image->CGImage();
        if (!picture) return picture.error();
        return PDFPages(*picture, pageHeight, progress);
    });
}

Result<Data> exportedBitmap(const std::shared_ptr<platform::Image>& image,
                            platform::BitmapImageFileType type,
                            const platform::ExportProgress& progress) {
    return orRefusedWithoutMemory(
        image, [&] { return image->representationUsingType(0, type, progress); });
}

}  // namespace utilia
