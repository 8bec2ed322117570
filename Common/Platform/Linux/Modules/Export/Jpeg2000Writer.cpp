#include <algorithm>
#include <array>
#include <bit>
#include <iterator>
#include <vector>

#include "Common/Platform/Linux/Modules/Export/Jpeg2000Stream.h"

// Writing JPEG 2000 with OpenJPEG: a file (jp2), without loss, tile by tile, so that it needs the
// memory of a tile beside the picture and what it is packed to.

namespace utilia::platform::bitmaps {
namespace {

constexpr std::uint32_t kTileSide = 1024;
constexpr int kMaximumResolutions = 6;

Jpeg2000Image imageOf(const Source& source) {
    const auto channels = static_cast<OPJ_UINT32>(source.channels());
    const OPJ_COLOR_SPACE space = source.isGrey() ? OPJ_CLRSPC_GRAY : OPJ_CLRSPC_SRGB;
    opj_image_cmptparm_t parameters[4] = {};
    for (OPJ_UINT32 i = 0; i < channels; ++i) {
        parameters[i].dx = parameters[i].dy = 1;
        parameters[i].w = source.wide();
        parameters[i].h = source.high();
        parameters[i].prec = 8;
    }
    Jpeg2000Image image(opj_image_tile_create(channels, parameters, space));
    if (!image) return image;
    image->x1 = source.wide();
    image->y1 = source.high();
    image->color_space = space;
    if (!source.isOpaque()) image->comps[channels - 1].alpha = 1;
    return image;
}

opj_cparameters_t parametersOf(const Source& source) {
    opj_cparameters_t parameters;
    opj_set_default_encoder_parameters(&parameters);
    parameters.tcp_numlayers = 1;
    parameters.tcp_rates[0] = 0;  // without loss
    parameters.cp_disto_alloc = 1;
    parameters.tcp_mct = source.isGrey() ? 0 : 1;  // mixes three channels
    const std::uint32_t wide = std::min(source.wide(), kTileSide);
    const std::uint32_t high = std::min(source.high(), kTileSide);
    parameters.tile_size_on = OPJ_TRUE;
    parameters.cp_tdx = static_cast<int>(wide);
    parameters.cp_tdy = static_cast<int>(high);
    parameters.numresolution =
        std::min(kMaximumResolutions, static_cast<int>(std::bit_width(std::min(wide, high))));
    return parameters;
}

bool writeTile(opj_codec_t* codec, opj_stream_t* stream, const Source& source, OPJ_UINT32 number) {
    const std::uint32_t across = (source.wide() + kTileSide - 1) / kTileSide;
    const std::uint32_t left = number % across * kTileSide, top = number / across * kTileSide;
    const std::uint32_t wide = std::min(kTileSide, source.wide() - left);
    const std::uint32_t high = std::min(kTileSide, source.high() - top);
    const std::size_t channels = source.channels();
    std::vector<OPJ_BYTE> planes(channels * wide * high);
    OPJ_BYTE* to = planes.data();
    for (std::size_t channel = 0; channel < channels; ++channel) {
        const bool isAlpha = !source.isOpaque() && channel + 1 == channels;
        const std::size_t place = isAlpha ? 3 : channel;
        for (std::uint32_t y = 0; y < high; ++y) {
            const std::uint8_t* from = source.row(top + y) + std::size_t{left} * 4 + place;
            for (std::uint32_t x = 0; x < wide; ++x, from += 4) *to++ = *from;
        }
    }
    return opj_write_tile(codec, number, planes.data(), static_cast<OPJ_UINT32>(planes.size()),
                          stream);
}

bool writeTiles(opj_codec_t* codec, opj_stream_t* stream, Source& source) {
    const auto count = [](std::uint32_t side) { return (side + kTileSide - 1) / kTileSide; };
    const std::uint32_t across = count(source.wide()), down = count(source.high());
    for (std::uint32_t row = 0; row < down; ++row) {
        for (std::uint32_t column = 0; column < across; ++column) {
            if (!writeTile(codec, stream, source, row * across + column)) return false;
            const double done = (row + (column + 1.0) / across) / down;
            if (!source.progress(done)) return false;
        }
    }
    return true;
}

std::uint32_t numberAt(Bytes bytes, std::size_t at) {
    return std::uint32_t{bytes[at]} << 24 | std::uint32_t{bytes[at + 1]} << 16 |
           std::uint32_t{bytes[at + 2]} << 8 | bytes[at + 3];
}

std::array<std::uint8_t, 4> asBytes(std::size_t number) {
    return {static_cast<std::uint8_t>(number >> 24), static_cast<std::uint8_t>(number >> 16),
            static_cast<std::uint8_t>(number >> 8), static_cast<std::uint8_t>(number)};
}

// The place of the first box of this kind from `at` on, each of which begins with its length and
// its kind; the end of the bytes when there is none.
std::size_t findBox(Bytes bytes, std::size_t at, const char* kind) {
    while (at + 8 <= bytes.size() && !beginsWith(bytes.data(), bytes.size(), kind, 4, at + 4)) {
        const std::uint32_t length = numberAt(bytes, at);
        if (length < 8) return bytes.size();
        at += length;
    }
    return std::min(at, bytes.size());
}

// OpenJPEG knows no profiles when it writes: its box for sRGB or grey is replaced by one with the profile.
bool writeWithProfile(Source& source, Bytes file) {
    const std::size_t header = findBox(file, 0, "jp2h");
    const std::size_t colour = findBox(file, header + 8, "colr");
    if (colour >= file.size()) return source.reason().refuse("no place for the profile");
    const std::size_t oldSize = numberAt(file, colour);
    const std::size_t newSize = 8 + 3 + source.profile().size();
    const auto headerSize = asBytes(numberAt(file, header) + newSize - oldSize);
    const auto colourSize = asBytes(newSize);
    // Method 2 is a profile; 0 is its precedence and how exact it is.
    static constexpr std::uint8_t kKind[] = {'c', 'o', 'l', 'r', 2, 0, 0};
    const Bytes pieces[] = {file.first(header),
                            headerSize,
                            file.subspan(header + 4, colour - header - 4),
                            colourSize,
                            kKind,
                            source.profile(),
                            file.subspan(colour + oldSize)};
    return std::all_of(std::begin(pieces), std::end(pieces),
                       [&source](Bytes piece) { return source.write(piece.data(), piece.size()); });
}

}  // namespace

bool encodeJpeg2000(Source& source) {
    Reason& reason = source.reason();
    const Jpeg2000Image image = imageOf(source);
    const Jpeg2000Codec codec(opj_create_compress(OPJ_CODEC_JP2));
    Jpeg2000Stream stream;
    if (!image || !codec || !stream.stream()) return reason.refuse("not enough memory");
    reportTo(reason, codec.get());
    opj_cparameters_t parameters = parametersOf(source);
    if (!opj_setup_encoder(codec.get(), &parameters, image.get()) ||
        !opj_start_compress(codec.get(), image.get(), stream.stream()) ||
        !writeTiles(codec.get(), stream.stream(), source) ||
        !opj_end_compress(codec.get(), stream.stream()))
        return reason.refuse("given up");
    const std::vector<std::uint8_t>& file = stream.written();
    return (source.profile().empty() ? source.write(file.data(), file.size())
                                     : writeWithProfile(source, file)) ||
           reason.refuse("given up");
}

}  // namespace utilia::platform::bitmaps
