#include <csetjmp>
#include <cstring>

#include <png.h>

#include "Common/Platform/Linux/Modules/Export/Codec.h"

// Reading PNG with libpng, which reports errors by jumping: between setjmp and the jump lie only
// objects that need no destruction.

namespace utilia::platform::bitmaps {
namespace {

// Deflate cannot pack better than 1032 to 1.
constexpr std::uint64_t kDeflateRatio = 1032;
constexpr std::uint64_t kRatioSlack = 64 << 10;
// Of one chunk beside the pixels, such as a profile.
constexpr png_alloc_size_t kMaximumChunk = 8 << 20;

struct Input {
    Bytes left;
    Reason* reason;
};

void fail(png_structp png, png_const_charp text) {
    static_cast<Input*>(png_get_error_ptr(png))->reason->set(text);
    png_longjmp(png, 1);
}

void ignore(png_structp, png_const_charp) {}

void readBytes(png_structp png, png_bytep to, std::size_t count) {
    auto& input = *static_cast<Input*>(png_get_io_ptr(png));
    if (count > input.left.size()) png_error(png, "the file ends too early");
    std::memcpy(to, input.left.data(), count);
    input.left = input.left.subspan(count);
}

bool isWorthItsRows(png_structp png, png_infop info, std::uint64_t fileSize) {
    const std::uint64_t decoded =
        std::uint64_t{png_get_rowbytes(png, info)} * png_get_image_height(png, info);
    return decoded <= fileSize * kDeflateRatio + kRatioSlack;
}

// Whatever the file holds becomes 8-bit RGBA.
void askForRgba(png_structp png, png_infop info) {
    png_set_expand(png);
    png_set_scale_16(png);
    png_set_gray_to_rgb(png);
    png_set_add_alpha(png, 0xff, PNG_FILLER_AFTER);
    static_cast<void>(png_set_interlace_handling(png));
    png_read_update_info(png, info);
}

bool passProfileOn(png_structp png, png_infop info, Target& target) {
    png_charp name = nullptr;
    int compression = 0;
    png_bytep profile = nullptr;
    png_uint_32 size = 0;
    if (!png_get_iCCP(png, info, &name, &compression, &profile, &size)) return true;
    return target.takeProfile({profile, size});
}

bool readPicture(png_structp png, png_infop info, std::uint64_t fileSize, Target& target) {
    // Texts and histograms are not looked at.
    static constexpr png_byte kUnwanted[] = "tEXt\0zTXt\0iTXt\0sPLT\0hIST\0eXIf\0tIME\0";
    if (setjmp(png_jmpbuf(png))) return false;
    png_set_user_limits(png, kImageMaximumSide, kImageMaximumSide);
    png_set_chunk_malloc_max(png, kMaximumChunk);
    png_set_keep_unknown_chunks(png, PNG_HANDLE_CHUNK_NEVER, kUnwanted, 7);
    png_read_info(png, info);
    const png_uint_32 wide = png_get_image_width(png, info);
    const png_uint_32 high = png_get_image_height(png, info);
    if (!target.accepts(wide, high, kDeflateRatio * 8)) return false;
    if (!isWorthItsRows(png, info, fileSize))
        return target.reason().refuse("more pixels than the file can hold");
    if (!passProfileOn(png, info, target)) return false;
    const int passes = png_get_interlace_type(png, info) == PNG_INTERLACE_ADAM7 ? 7 : 1;
    askForRgba(png, info);
    std::uint8_t* const rgba = target.begin(wide, high);
    if (!rgba) return false;
    for (int pass = 0; pass < passes; ++pass) {
        for (png_uint_32 y = 0; y < high; ++y)
            png_read_row(png, rgba + std::size_t{y} * wide * 4, nullptr);
    }
    png_read_end(png, nullptr);
    return true;
}

}  // namespace

bool decodePng(Bytes bytes, Target& target) {
    Input input{bytes, &target.reason()};
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &input, fail, ignore);
    if (!png) return target.reason().refuse("not enough memory");
    png_set_read_fn(png, &input, readBytes);
    png_infop info = png_create_info_struct(png);
    const bool isRead = info && readPicture(png, info, bytes.size(), target);
    png_destroy_read_struct(&png, &info, nullptr);
    return isRead || target.reason().refuse("not enough memory");
}

}  // namespace utilia::platform::bitmaps
