#pragma once

#include <cstddef>
#include <cstdint>

#include "Common/Platform/Linux/Modules/Export/ExportModule.h"

extern "C" {

// Contract: never renumber. The file types of bitmaps, as the original platform numbers them; TIFF
// is the Icons module's.
enum UtiliaExportFileType : std::uint32_t {
    UtiliaExportTIFF = 0,
    UtiliaExportBMP = 1,
    UtiliaExportGIF = 2,
    UtiliaExportJPEG = 3,
    UtiliaExportPNG = 4,
    UtiliaExportJPEG2000 = 5,
};

// Where a picture is decoded to.
struct UtiliaExportTarget {
    void* context;
    // Asked once, when the sides are known and within the limits: room for 8-bit RGBA rows from the
    // top without padding. Null gives up.
    std::uint8_t* (*begin)(void* context, std::uint32_t pixelsWide, std::uint32_t pixelsHigh);
    // The ICC profile of the picture, if it has one; false gives up.
    bool (*colourProfile)(void* context, const std::uint8_t* bytes, std::size_t size);
};

struct UtiliaExportBitmaps {
    // Decodes the first picture of a file of this type. Answers whether it could; else `reason`
    // (kUtiliaExportReasonSize bytes) says why, and the pixels are not to be used. Pixels are never
    // asked for that the size of the file cannot be worth.
    bool (*decode)(std::uint32_t fileType, const std::uint8_t* bytes, std::size_t size,
                   const UtiliaExportTarget* target, char* reason);

    // Writes a file of this type with the one picture. Answers whether it could; else `reason` says
    // why, and what the sink got is not to be used.
    bool (*encode)(std::uint32_t fileType, const UtiliaExportPixels* pixels,
                   const UtiliaExportSink* sink, char* reason);
};

}  // extern "C"

namespace utilia::platform {

// What the first bytes of a file look like.
inline bool beginsWith(const std::uint8_t* bytes, std::size_t size, const char* magic,
                       std::size_t length, std::size_t at = 0) {
    if (size < at + length) return false;
    for (std::size_t i = 0; i < length; ++i) {
        if (bytes[at + i] != static_cast<std::uint8_t>(magic[i])) return false;
    }
    return true;
}

enum class ImageSignature { None, TIFF, BMP, GIF, JPEG, PNG, JPEG2000, JPEG2000Codestream };

inline ImageSignature imageSignature(const std::uint8_t* bytes, std::size_t size) {
    const auto begins = [&](const char* magic, std::size_t length) {
        return beginsWith(bytes, size, magic, length);
    };
    if (begins("II*\0", 4) || begins("MM\0*", 4) || begins("II+\0", 4) || begins("MM\0+", 4))
        return ImageSignature::TIFF;
    if (begins("\x89PNG\r\n\x1a\n", 8)) return ImageSignature::PNG;
    if (begins("\xff\xd8\xff", 3)) return ImageSignature::JPEG;
    if (begins("GIF87a", 6) || begins("GIF89a", 6)) return ImageSignature::GIF;
    if (begins("\0\0\0\x0cjP  \r\n\x87\n", 12)) return ImageSignature::JPEG2000;
    if (begins("\xff\x4f\xff\x51", 4)) return ImageSignature::JPEG2000Codestream;
    if (begins("BM", 2)) return ImageSignature::BMP;
    return ImageSignature::None;
}

}  // namespace utilia::platform
