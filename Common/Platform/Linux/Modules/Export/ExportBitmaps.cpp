#include "Common/Platform/Linux/Modules/Export/ExportBitmaps.h"

#include <new>

#include "Common/Platform/Linux/Modules/Export/Codec.h"

namespace utilia::platform::bitmaps {
namespace {

// Memory that runs out is the one exception that the codecs can meet; it ends here.

bool decode(std::uint32_t fileType, const std::uint8_t* bytes, std::size_t size,
            const UtiliaExportTarget* table, char* reasonBuffer) noexcept {
    Reason reason(reasonBuffer);
    Target target(*table, size, reason);
    try {
        switch (fileType) {
        case UtiliaExportBMP:
            return decodeBmp({bytes, size}, target);
        case UtiliaExportGIF:
            return decodeGif({bytes, size}, target);
        case UtiliaExportJPEG:
            return decodeJpeg({bytes, size}, target);
        case UtiliaExportPNG:
            return decodePng({bytes, size}, target);
        case UtiliaExportJPEG2000:
            return decodeJpeg2000({bytes, size}, target);
        default:
            return reason.refuse("no such file type");
        }
    } catch (const std::bad_alloc&) {
        return reason.refuse("not enough memory");
    }
}

bool encodeAs(std::uint32_t fileType, Source& source) {
    switch (fileType) {
    case UtiliaExportBMP:
        return encodeBmp(source);
    case UtiliaExportGIF:
        return encodeGif(source);
    case UtiliaExportJPEG:
        return encodeJpeg(source);
    case UtiliaExportPNG:
        return encodePng(source);
    case UtiliaExportJPEG2000:
        return encodeJpeg2000(source);
    default:
        return source.reason().refuse("no such file type");
    }
}

bool encode(std::uint32_t fileType, const UtiliaExportPixels* pixels, const UtiliaExportSink* sink,
            char* reasonBuffer) noexcept {
    Reason reason(reasonBuffer);
    try {
        Source source(*pixels, *sink, reason);
        return encodeAs(fileType, source) && !source.hasLost();
    } catch (const std::bad_alloc&) {
        return reason.refuse("not enough memory");
    }
}

}  // namespace

constinit const UtiliaExportBitmaps kExportBitmaps = {decode, encode};

}  // namespace utilia::platform::bitmaps
