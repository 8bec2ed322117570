#include <csetjmp>
#include <cstdio>
#include <cstring>

#include <jpeglib.h>

#include <jerror.h>

#include "Common/Platform/Linux/Modules/Export/Codec.h"

// Writing JPEG with libjpeg-turbo: quality 90, and colours as finely as brightness, because most of
// what is exported shows text; one channel where the profile is one of grey. JPEG knows no transparency: pictures lie on white.

namespace utilia::platform::bitmaps {
namespace {

constexpr int kQuality = 90;
constexpr UINT16 kPixelsPerInch = 72;  // a pixel is shown as a point
constexpr std::size_t kMaximumProfile = 255 * 65'519;

struct Encoder {
    jpeg_compress_struct info;
    jpeg_error_mgr errors;
    jpeg_destination_mgr destination;
    std::jmp_buf back;
    Source* source;
    JOCTET buffer[1 << 16];
};

Encoder& encoderOf(j_common_ptr info) { return *static_cast<Encoder*>(info->client_data); }
Encoder& encoderOf(j_compress_ptr info) { return *static_cast<Encoder*>(info->client_data); }

[[noreturn]] void fail(j_common_ptr info) {
    char text[JMSG_LENGTH_MAX];
    info->err->format_message(info, text);
    encoderOf(info).source->reason().set(text);
    std::longjmp(encoderOf(info).back, 1);
}

void takeMessage(j_common_ptr, int) {}
void printNothing(j_common_ptr) {}

void rewind(j_compress_ptr info) {
    Encoder& encoder = encoderOf(info);
    encoder.destination.next_output_byte = encoder.buffer;
    encoder.destination.free_in_buffer = sizeof encoder.buffer;
}

boolean empty(j_compress_ptr info) {
    Encoder& encoder = encoderOf(info);
    if (!encoder.source->write(encoder.buffer, sizeof encoder.buffer))
        std::longjmp(encoder.back, 1);
    rewind(info);
    return TRUE;
}

void finish(j_compress_ptr info) {
    Encoder& encoder = encoderOf(info);
    if (!encoder.source->write(encoder.buffer,
                               sizeof encoder.buffer - encoder.destination.free_in_buffer))
        std::longjmp(encoder.back, 1);
}

void setParameters(jpeg_compress_struct& info, const Source& source) {
    info.image_width = source.wide();
    info.image_height = source.high();
    info.input_components = source.isGrey() ? 1 : 4;
    info.in_color_space = source.isGrey() ? JCS_GRAYSCALE : JCS_EXT_RGBX;
    jpeg_set_defaults(&info);
    jpeg_set_quality(&info, kQuality, TRUE);
    info.comp_info[0].h_samp_factor = info.comp_info[0].v_samp_factor = 1;
    info.density_unit = 1;
    info.X_density = info.Y_density = kPixelsPerInch;
}

void putOnWhite(const std::uint8_t* rgba, std::uint8_t* rgbx, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i, rgba += 4, rgbx += 4) {
        for (int channel = 0; channel < 3; ++channel)
            rgbx[channel] = onWhite(rgba[channel], rgba[3]);
    }
}

void putGreyOnWhite(const std::uint8_t* rgba, std::uint8_t* grey, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i, rgba += 4) grey[i] = onWhite(rgba[0], rgba[3]);
}

bool writePicture(Encoder& encoder) {
    jpeg_compress_struct& info = encoder.info;
    Source& source = *encoder.source;
    if (setjmp(encoder.back)) return false;
    jpeg_create_compress(&info);
    info.dest = &encoder.destination;
    setParameters(info, source);
    jpeg_start_compress(&info, TRUE);
    if (!source.profile().empty() && source.profile().size() <= kMaximumProfile) {
        jpeg_write_icc_profile(&info, source.profile().data(),
                               static_cast<unsigned>(source.profile().size()));
    }
    // Goes with the encoder.
    auto* const white = static_cast<std::uint8_t*>((*info.mem->alloc_large)(
        reinterpret_cast<j_common_ptr>(&info), JPOOL_IMAGE, std::size_t{source.wide()} * 4));
    for (std::size_t y = 0; y < source.high(); ++y) {
        // libjpeg only reads them, its interface just does not say so.
        JSAMPROW row = const_cast<std::uint8_t*>(source.row(y));
        if (source.isGrey()) {
            putGreyOnWhite(row, white, source.wide());
            row = white;
        } else if (!source.isRowOpaque(y)) {
            putOnWhite(row, white, source.wide());
            row = white;
        }
        jpeg_write_scanlines(&info, &row, 1);
        if (!source.rowIsDone(y)) return false;
    }
    jpeg_finish_compress(&info);
    return true;
}

}  // namespace

bool encodeJpeg(Source& source) {
    if (source.wide() > JPEG_MAX_DIMENSION || source.high() > JPEG_MAX_DIMENSION)
        return source.reason().refuse("JPEG holds at most 65,500 pixels a side");
    Encoder encoder;
    std::memset(&encoder, 0, offsetof(Encoder, buffer));
    encoder.source = &source;
    encoder.info.err = jpeg_std_error(&encoder.errors);
    encoder.errors.error_exit = fail;
    encoder.errors.emit_message = takeMessage;
    encoder.errors.output_message = printNothing;
    encoder.info.client_data = &encoder;
    encoder.destination.init_destination = rewind;
    encoder.destination.empty_output_buffer = empty;
    encoder.destination.term_destination = finish;
    const bool isWritten = writePicture(encoder);
    jpeg_destroy_compress(&encoder.info);
    return isWritten;
}

}  // namespace utilia::platform::bitmaps
