#include <csetjmp>
#include <vector>

#include <png.h>

#include "Common/Platform/Linux/Modules/Export/Codec.h"

// Writing PNG with libpng at its own settings: Deflate level 6, the filter of each row chosen by
// its sum of differences. Pictures without transparency are written without alpha, which saves a
// quarter of the time; those with a profile of grey as grey, since libpng refuses one with RGB.

namespace utilia::platform::bitmaps {
namespace {

constexpr png_uint_32 kPixelsPerMetre = 2835;  // a pixel is shown as a point

void fail(png_structp png, png_const_charp text) {
    static_cast<Source*>(png_get_error_ptr(png))->reason().set(text);
    png_longjmp(png, 1);
}

void ignore(png_structp, png_const_charp) {}

void writeBytes(png_structp png, png_bytep bytes, std::size_t count) {
    if (!static_cast<Source*>(png_get_io_ptr(png))->write(bytes, count)) png_error(png, "given up");
}

void flush(png_structp) {}

int colourTypeOf(const Source& source) {
    return (source.isGrey() ? 0 : PNG_COLOR_MASK_COLOR) |
           (source.isOpaque() ? 0 : PNG_COLOR_MASK_ALPHA);
}

// `grey` has room for a row of a grey picture.
bool writePicture(png_structp png, png_infop info, Source& source, std::uint8_t* grey) {
    if (setjmp(png_jmpbuf(png))) return false;
    png_set_benign_errors(png, 1);
    png_set_user_limits(png, kImageMaximumSide, kImageMaximumSide);
    png_set_IHDR(png, info, source.wide(), source.high(), 8, colourTypeOf(source),
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_set_pHYs(png, info, kPixelsPerMetre, kPixelsPerMetre, PNG_RESOLUTION_METER);
    if (!source.profile().empty()) {
        png_set_iCCP(png, info, "ICC", PNG_COMPRESSION_TYPE_BASE, source.profile().data(),
                     static_cast<png_uint_32>(source.profile().size()));
    }
    png_write_info(png, info);
    if (source.isOpaque() && !source.isGrey()) png_set_filler(png, 0, PNG_FILLER_AFTER);
    for (std::size_t y = 0; y < source.high(); ++y) {
        if (source.isGrey()) source.readGreyRow(y, grey);
        png_write_row(png, source.isGrey() ? grey : source.row(y));
        if (!source.rowIsDone(y)) png_error(png, "given up");
    }
    png_write_end(png, info);
    return true;
}

}  // namespace

bool encodePng(Source& source) {
    std::vector<std::uint8_t> grey(source.isGrey() ? source.wide() * source.channels() : 0);
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &source, fail, ignore);
    if (!png) return source.reason().refuse("not enough memory");
    png_set_write_fn(png, &source, writeBytes, flush);
    png_infop info = png_create_info_struct(png);
    const bool isWritten = info && writePicture(png, info, source, grey.data());
    png_destroy_write_struct(&png, &info);
    return isWritten || source.reason().refuse("not enough memory");
}

}  // namespace utilia::platform::bitmaps
