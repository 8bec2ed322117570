#include "Common/Platform/Linux/Modules/Icons/TiffWriter.h"

#include <algorithm>
#include <vector>

// Writing TIFF that every reader takes: little-endian baseline directories of 8-bit RGBA, alpha not
// associated, with the resolution that shows a pixel as a point. Pictures with a profile of grey are
// grey, and have alpha only if it says anything. The same pixels give the same bytes: no dates and no
// names.

namespace utilia::platform::icons {
namespace {

// Strips of about this size let a reader work in pieces; a 512-pixel icon is one strip, written in
// one step.
constexpr std::uint32_t kStripBytes = 1u << 20;
constexpr std::size_t kDirectoryBytes = 1024;  // more than an entry table and its values take
constexpr float kPixelsPerInch = 72;

std::uint16_t tiffCompression(std::uint32_t compression) {
    switch (compression) {
    case UtiliaIconsPackBits:
        return COMPRESSION_PACKBITS;
    case UtiliaIconsLZW:
        return COMPRESSION_LZW;
    case UtiliaIconsDeflate:
        return COMPRESSION_ADOBE_DEFLATE;
    default:
        return COMPRESSION_NONE;
    }
}

// Which samples of a pixel are written.
struct Samples {
    bool isGrey = false;
    bool hasAlpha = true;

    explicit Samples(const UtiliaIconsBitmap& bitmap) : isGrey(bitmap.isGrey) {
        if (!isGrey) return;
        const std::size_t bytes = std::size_t{bitmap.pixelsWide} * bitmap.pixelsHigh * 4;
        std::size_t alpha = 3;
        while (alpha < bytes && bitmap.rgba[alpha] == 255) alpha += 4;
        hasAlpha = alpha < bytes;
    }
    std::size_t count() const { return (isGrey ? 1u : 3u) + (hasAlpha ? 1u : 0u); }
    void readGrey(const std::uint8_t* rgba, std::size_t pixels, std::uint8_t* to) const {
        for (std::size_t i = 0; i < pixels; ++i, rgba += 4) {
            *to++ = rgba[0];
            if (hasAlpha) *to++ = rgba[3];
        }
    }
};

bool setFields(TIFF* tiff, const UtiliaIconsBitmap& bitmap, const Samples& samples,
               std::uint32_t rowsPerStrip) {
    const std::uint16_t compression = tiffCompression(bitmap.compression);
    const std::uint16_t alpha = EXTRASAMPLE_UNASSALPHA;
    bool done =
        TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, bitmap.pixelsWide) &&
        TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, bitmap.pixelsHigh) &&
        TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8) &&
        TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, static_cast<std::uint16_t>(samples.count())) &&
        (!samples.hasAlpha || TIFFSetField(tiff, TIFFTAG_EXTRASAMPLES, 1, &alpha)) &&
        TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC,
                     samples.isGrey ? PHOTOMETRIC_MINISBLACK : PHOTOMETRIC_RGB) &&
        TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG) &&
        TIFFSetField(tiff, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT) &&
        TIFFSetField(tiff, TIFFTAG_COMPRESSION, compression) &&
        TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, rowsPerStrip) &&
        TIFFSetField(tiff, TIFFTAG_XRESOLUTION, kPixelsPerInch) &&
        TIFFSetField(tiff, TIFFTAG_YRESOLUTION, kPixelsPerInch) &&
        TIFFSetField(tiff, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
    if (bitmap.colourProfile) {
        done = done && TIFFSetField(tiff, TIFFTAG_ICCPROFILE,
                                    static_cast<std::uint32_t>(bitmap.colourProfileSize),
                                    bitmap.colourProfile);
    }
    if (compression == COMPRESSION_LZW || compression == COMPRESSION_ADOBE_DEFLATE) {
        done = done && TIFFSetField(tiff, TIFFTAG_PREDICTOR, PREDICTOR_HORIZONTAL);
    }
    return done;
}

// What of all the rows is written, told as it goes.
class WrittenRows final {
public:
    WrittenRows(std::span<const UtiliaIconsBitmap> bitmaps, const UtiliaIconsProgress* progress)
        : progress_(progress) {
        for (const UtiliaIconsBitmap& bitmap : bitmaps) all_ += bitmap.pixelsHigh;
    }
    bool add(std::uint32_t rows) {
        written_ += rows;
        return !progress_ || progress_->goesOn(progress_->context, written_ / all_);
    }

private:
    const UtiliaIconsProgress* progress_;
    double all_ = 0;
    double written_ = 0;
};

bool writeBitmap(TIFF* tiff, const UtiliaIconsBitmap& bitmap, WrittenRows& written) {
    const Samples samples(bitmap);
    const std::size_t rowBytes = bitmap.pixelsWide * samples.count();
    const std::uint32_t rowsPerStrip =
        std::min(bitmap.pixelsHigh,
                 std::max(1u, static_cast<std::uint32_t>(std::size_t{kStripBytes} / rowBytes)));
    if (!setFields(tiff, bitmap, samples, rowsPerStrip)) return false;
    std::vector<std::uint8_t> grey(samples.isGrey ? rowBytes * rowsPerStrip : 0);
    std::uint32_t strip = 0;
    for (std::uint32_t y = 0; y < bitmap.pixelsHigh; y += rowsPerStrip, ++strip) {
        const std::uint32_t rows = std::min(rowsPerStrip, bitmap.pixelsHigh - y);
        // libtiff copies 8-bit samples before it changes them, its interface just does not say so.
        auto* from =
            const_cast<std::uint8_t*>(bitmap.rgba) + std::size_t{bitmap.pixelsWide} * 4 * y;
        if (samples.isGrey) {
            samples.readGrey(from, std::size_t{bitmap.pixelsWide} * rows, grey.data());
            from = grey.data();
        }
        if (TIFFWriteEncodedStrip(tiff, strip, from, static_cast<tmsize_t>(rowBytes * rows)) < 0 ||
            !written.add(rows))
            return false;
    }
    return TIFFWriteDirectory(tiff) != 0;
}

}  // namespace

std::uint8_t* encodeBitmaps(std::span<const UtiliaIconsBitmap> bitmaps, std::size_t* size,
                            const UtiliaIconsProgress* progress, Reason reason) {
    std::size_t expected = kDirectoryBytes;
    for (const UtiliaIconsBitmap& bitmap : bitmaps) {
        const std::size_t bytes = std::size_t{bitmap.pixelsWide} * bitmap.pixelsHigh * 4;
        expected += kDirectoryBytes + bitmap.colourProfileSize +
                    (bitmap.compression == UtiliaIconsUncompressed ? bytes : bytes / 4);
    }
    TiffFile file(expected, reason);
    if (!file.tiff()) return nullptr;
    WrittenRows written(bitmaps, progress);
    for (const UtiliaIconsBitmap& bitmap : bitmaps) {
        if (!writeBitmap(file.tiff(), bitmap, written)) {
            file.reason().set("cannot be written as TIFF");
            return nullptr;
        }
    }
    return file.finish(size);
}

}  // namespace utilia::platform::icons
