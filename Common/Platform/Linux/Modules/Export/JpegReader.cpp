#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <jpeglib.h>

#include <jerror.h>

#include "Common/Platform/Linux/Modules/Export/Codec.h"
#include "Common/Platform/Linux/Modules/Export/ExifOrientation.h"

// Reading JPEG with libjpeg-turbo, which reports errors through a function that must not return:
// between setjmp and the jump lie only objects that need no destruction.
//
// libjpeg shows what it can of a damaged file. Here, missing or damaged pixels are no picture.

namespace utilia::platform::bitmaps {
namespace {

// A bit for a block of 8 x 8 pixels is the least of Huffman coding.
constexpr std::uint64_t kPixelsPerByte = 512;
// What arrives in several scans is gathered as coefficients, 6 bytes a pixel, before the first row.
constexpr std::uint64_t kMaximumPixelsInScans = 64'000'000;
constexpr long kMaximumMemory = 512L << 20;
// Encoders write about ten; a file may name thousands that cost time and bring nothing.
constexpr int kMaximumScans = 100;

struct Decoder {
    jpeg_decompress_struct info;
    jpeg_error_mgr errors;
    jpeg_progress_mgr progress;
    std::jmp_buf back;
    Target* target;
    std::uint8_t* row;  // stored ones that are to be turned, and inks
};

Decoder& decoderOf(j_common_ptr info) { return *static_cast<Decoder*>(info->client_data); }

[[noreturn]] void fail(j_common_ptr info) {
    char text[JMSG_LENGTH_MAX];
    info->err->format_message(info, text);
    Decoder& decoder = decoderOf(info);
    decoder.target->reason().set(text);
    std::longjmp(decoder.back, 1);
}

// Whether a warning means that pixels are missing or wrong; others are about form.
bool meansDamage(int code) {
    switch (code) {
    case JWRN_HIT_MARKER:
    case JWRN_HUFF_BAD_CODE:
    case JWRN_JPEG_EOF:
    case JWRN_MUST_RESYNC:
    case JWRN_ARITH_BAD_CODE:
        return true;
    default:
        return false;
    }
}

void takeMessage(j_common_ptr info, int level) {
    if (level < 0 && meansDamage(info->err->msg_code)) fail(info);
}

void printNothing(j_common_ptr) {}

void watchScans(j_common_ptr info) {
    Decoder& decoder = decoderOf(info);
    if (decoder.info.input_scan_number <= kMaximumScans) return;
    decoder.target->reason().set("too many scans");
    std::longjmp(decoder.back, 1);
}

Orientation orientationOf(const jpeg_decompress_struct& info) {
    for (const jpeg_marker_struct* marker = info.marker_list; marker; marker = marker->next) {
        if (marker->marker != JPEG_APP0 + 1) continue;
        const Bytes exif(marker->data, marker->data_length);
        if (const auto number = exifOrientation(exif)) return Orientation(*number);
    }
    return Orientation();
}

bool passProfileOn(jpeg_decompress_struct& info, Target& target) {
    JOCTET* profile = nullptr;
    unsigned size = 0;
    if (!jpeg_read_icc_profile(&info, &profile, &size)) return true;
    const bool isTaken = target.takeProfile({profile, size});
    std::free(profile);
    return isTaken;
}

// From inks to light. Writers that leave Adobe's mark store the light that the ink lets through.
void convertInks(const jpeg_decompress_struct& info, const std::uint8_t* inks, std::uint8_t* rgba) {
    const unsigned flip = info.saw_Adobe_marker ? 0 : 255;
    for (JDIMENSION x = 0; x < info.output_width; ++x, inks += 4, rgba += 4) {
        const unsigned black = inks[3] ^ flip;
        for (int i = 0; i < 3; ++i) rgba[i] = underInk(inks[i] ^ flip, black);
        rgba[3] = 255;
    }
}

bool readRows(Decoder& decoder, Orientation orientation, std::uint8_t* rgba) {
    jpeg_decompress_struct& info = decoder.info;
    const bool hasInks = info.out_color_space == JCS_CMYK;
    const std::size_t rowBytes = std::size_t{info.output_width} * 4;
    if (hasInks || !orientation.isUpright()) {
        // Taken back with the decoder.
        decoder.row = static_cast<std::uint8_t*>((*info.mem->alloc_large)(
            reinterpret_cast<j_common_ptr>(&info), JPOOL_IMAGE, 2 * rowBytes));
    }
    while (info.output_scanline < info.output_height) {
        const std::size_t y = info.output_scanline;
        std::uint8_t* const place = orientation.isUpright() ? rgba + y * rowBytes : decoder.row;
        JSAMPROW read = hasInks ? decoder.row + rowBytes : place;
        if (jpeg_read_scanlines(&info, &read, 1) != 1) return false;
        if (hasInks) convertInks(info, read, place);
        if (!orientation.isUpright())
            orientation.placeRow(place, y, info.output_width, info.output_height, rgba);
    }
    return true;
}

bool readPicture(Decoder& decoder, Bytes bytes) {
    jpeg_decompress_struct& info = decoder.info;
    Target& target = *decoder.target;
    if (setjmp(decoder.back)) return false;
    jpeg_create_decompress(&info);
    info.progress = &decoder.progress;
    info.mem->max_memory_to_use = kMaximumMemory;
    jpeg_mem_src(&info, bytes.data(), static_cast<unsigned long>(bytes.size()));
    jpeg_save_markers(&info, JPEG_APP0 + 1, 0xffff);
    jpeg_save_markers(&info, JPEG_APP0 + 2, 0xffff);
    jpeg_read_header(&info, TRUE);
    const std::uint64_t wide = info.image_width, high = info.image_height;
    if (!target.accepts(wide, high, kPixelsPerByte)) return false;
    if (jpeg_has_multiple_scans(&info) && wide * high > kMaximumPixelsInScans)
        return target.reason().refuse("too many pixels for a picture in several scans");
    if (!passProfileOn(info, target)) return false;
    const bool hasInks = info.jpeg_color_space == JCS_CMYK || info.jpeg_color_space == JCS_YCCK;
    info.out_color_space = hasInks ? JCS_CMYK : JCS_EXT_RGBA;
    const Orientation orientation = orientationOf(info);
    std::uint8_t* const rgba =
        orientation.swapsSides() ? target.begin(high, wide) : target.begin(wide, high);
    if (!rgba) return false;
    jpeg_start_decompress(&info);
    if (!readRows(decoder, orientation, rgba)) return false;
    jpeg_finish_decompress(&info);
    return true;
}

}  // namespace

bool decodeJpeg(Bytes bytes, Target& target) {
    Decoder decoder;
    std::memset(&decoder, 0, sizeof decoder);
    decoder.target = &target;
    decoder.info.err = jpeg_std_error(&decoder.errors);
    decoder.errors.error_exit = fail;
    decoder.errors.emit_message = takeMessage;
    decoder.errors.output_message = printNothing;
    decoder.info.client_data = &decoder;
    decoder.progress.progress_monitor = watchScans;
    const bool isRead = readPicture(decoder, bytes);
    jpeg_destroy_decompress(&decoder.info);
    return isRead || target.reason().refuse("damaged pixels");
}

}  // namespace utilia::platform::bitmaps
