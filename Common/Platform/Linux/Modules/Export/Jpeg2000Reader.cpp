#include <algorithm>
#include <array>
#include <optional>
#include <vector>

#include "Common/Platform/Linux/Modules/Export/Jpeg2000Stream.h"

// Reading JPEG 2000 with OpenJPEG, tile by tile: a tile that is being decoded takes 4 bytes a
// sample and about as much again, so its size is limited more tightly than the picture's.
//
// Samples may have any number of bits up to 38, signed or not, and be fewer than the pixels;
// colours are RGB, grey, a palette, luma and chroma, or inks. What JPEG 2000 can do beyond that
// (CIELab, further channels) is not read, or left out.

namespace utilia::platform::bitmaps {
namespace {

// A code block of 64 x 64 pixels without content costs next to nothing: a large empty picture is
// worth its bytes, within the limit of a tile.
constexpr std::uint64_t kPixelsPerByte = 16'384;
constexpr std::uint64_t kMaximumSamplesOfTile = 64'000'000;
constexpr unsigned kMaximumComponents = 8;

enum class Colours { Grey, RGB, LumaChroma, Inks };

// How the components of a picture make up its pixels.
struct Layout {
    Colours colours = Colours::Grey;
    int alpha = -1;  // its component
    bool isPremultiplied = false;

    static std::optional<Layout> of(const opj_image_t& image) {
        Layout layout;
        unsigned colourComponents = 0;
        for (OPJ_UINT32 i = 0; i < image.numcomps; ++i) {
            if (image.comps[i].alpha == 0) {
                // Colours come first.
                if (colourComponents == i) ++colourComponents;
            } else if (layout.alpha < 0) {
                layout.alpha = static_cast<int>(i);
                layout.isPremultiplied = image.comps[i].alpha == 2;
            }
        }
        switch (image.color_space) {
        case OPJ_CLRSPC_CMYK:
            layout.colours = Colours::Inks;
            return colourComponents >= 4 ? std::optional(layout) : std::nullopt;
        case OPJ_CLRSPC_SYCC:
        case OPJ_CLRSPC_EYCC:
            layout.colours = Colours::LumaChroma;
            return colourComponents >= 3 ? std::optional(layout) : std::nullopt;
        case OPJ_CLRSPC_GRAY:
            return colourComponents >= 1 ? std::optional(layout) : std::nullopt;
        default:
            // The numbers of CIELab, which is no profile.
            if (image.icc_profile_buf && image.icc_profile_len == 0) return std::nullopt;
            // Bare codestreams do not tell.
            if (colourComponents == 0) return std::nullopt;
            if (colourComponents >= 3) layout.colours = Colours::RGB;
            const bool isBare = layout.alpha < 0 && image.color_space != OPJ_CLRSPC_SRGB;
            if (isBare && (colourComponents == 2 || colourComponents == 4))
                layout.alpha = static_cast<int>(colourComponents) - 1;
            return layout;
        }
    }

    unsigned colourCount() const {
        return colours == Colours::Grey ? 1 : colours == Colours::Inks ? 4 : 3;
    }
};

// One row of a component, brought to 8 bits and to the width of the tile.
class ComponentRow final {
public:
    explicit ComponentRow(const opj_image_comp_t& component) : component_(component) {}

    bool isUsable() const {
        return component_.data && component_.w > 0 && component_.h > 0 && component_.dx > 0 &&
               component_.dy > 0 && component_.prec >= 1 && component_.prec <= 38;
    }

    // `left` and `y` in the coordinates of the whole picture's grid.
    void read(std::uint32_t left, std::uint32_t y, std::uint8_t* to, std::size_t count) const {
        const std::uint32_t row = offset(y, component_.dy, component_.y0, component_.h);
        const OPJ_INT32* const samples = component_.data + std::size_t{row} * component_.w;
        const std::int64_t shift = component_.sgnd ? std::int64_t{1} << (component_.prec - 1) : 0;
        const std::int64_t maximum = (std::int64_t{1} << component_.prec) - 1;
        const bool isPlain = maximum == 255 && shift == 0 && component_.dx == 1;
        for (std::size_t x = 0; x < count; ++x) {
            const std::uint32_t column = offset(left + static_cast<std::uint32_t>(x), component_.dx,
                                                component_.x0, component_.w);
            const std::int64_t value =
                std::clamp<std::int64_t>(samples[column] + shift, 0, maximum);
            to[x] =
                static_cast<std::uint8_t>(isPlain ? value : (value * 255 + maximum / 2) / maximum);
        }
    }

private:
    static std::uint32_t offset(std::uint32_t at, std::uint32_t step, std::uint32_t first,
                                std::uint32_t count) {
        const std::uint32_t place = at / step;
        return std::min(place > first ? place - first : 0, count - 1);
    }

    const opj_image_comp_t& component_;
};

std::uint8_t toByte(double value) {
    return static_cast<std::uint8_t>(std::clamp(value + 0.5, 0.0, 255.0));
}

// Colours of one pixel, from its components.
void mix(const Layout& layout, const std::array<std::uint8_t, 4>& from, std::uint8_t* rgb) {
    switch (layout.colours) {
    case Colours::Grey:
        rgb[0] = rgb[1] = rgb[2] = from[0];
        break;
    case Colours::RGB:
        std::copy_n(from.begin(), 3, rgb);
        break;
    case Colours::LumaChroma: {
        const double blue = from[1] - 128.0, red = from[2] - 128.0;
        rgb[0] = toByte(from[0] + 1.402 * red);
        rgb[1] = toByte(from[0] - 0.344136 * blue - 0.714136 * red);
        rgb[2] = toByte(from[0] + 1.772 * blue);
        break;
    }
    case Colours::Inks:
        for (std::size_t i = 0; i < 3; ++i) rgb[i] = underInk(255u - from[i], 255u - from[3]);
        break;
    }
}

void divideByAlpha(std::uint8_t* rgb, unsigned alpha) {
    for (int i = 0; i < 3; ++i) {
        rgb[i] =
            alpha == 0
                ? std::uint8_t{0}
                : static_cast<std::uint8_t>(std::min(255u, (rgb[i] * 255u + alpha / 2) / alpha));
    }
}

// The place of the picture on its grid.
struct Frame {
    std::uint32_t left, top, right, bottom;
    std::uint64_t wide() const { return right - left; }
    std::uint64_t high() const { return bottom - top; }
};

Frame frameOf(const opj_image_t& image) { return {image.x0, image.y0, image.x1, image.y1}; }

bool copyTile(const opj_image_t& tile, const Frame& whole, std::uint8_t* rgba) {
    const auto layout = Layout::of(tile);
    const Frame frame = frameOf(tile);
    if (!layout || frame.left < whole.left || frame.top < whole.top || frame.right > whole.right ||
        frame.bottom > whole.bottom)
        return false;
    std::vector<ComponentRow> components;
    for (unsigned i = 0; i < layout->colourCount(); ++i) components.emplace_back(tile.comps[i]);
    if (layout->alpha >= 0) components.emplace_back(tile.comps[layout->alpha]);
    if (!std::all_of(components.begin(), components.end(),
                     [](const ComponentRow& one) { return one.isUsable(); }))
        return false;
    const std::size_t wide = frame.wide();
    std::vector<std::uint8_t> rows(wide * components.size());
    for (std::uint32_t y = frame.top; y < frame.bottom; ++y) {
        for (std::size_t i = 0; i < components.size(); ++i)
            components[i].read(frame.left, y, rows.data() + i * wide, wide);
        std::uint8_t* to =
            rgba + (std::size_t{y - whole.top} * whole.wide() + (frame.left - whole.left)) * 4;
        for (std::size_t x = 0; x < wide; ++x, to += 4) {
            std::array<std::uint8_t, 4> from{};
            for (std::size_t i = 0; i < layout->colourCount(); ++i) from[i] = rows[i * wide + x];
            mix(*layout, from, to);
            to[3] = layout->alpha < 0 ? 255 : rows[layout->colourCount() * wide + x];
            if (layout->isPremultiplied) divideByAlpha(to, to[3]);
        }
    }
    return true;
}

struct InfoFreer {
    void operator()(opj_codestream_info_v2_t* info) const { opj_destroy_cstr_info(&info); }
};

// How many tiles there are; 0 when one of them takes too much.
std::uint64_t countTiles(opj_codec_t* codec, const opj_image_t& image, Reason& reason) {
    const std::unique_ptr<opj_codestream_info_v2_t, InfoFreer> info(opj_get_cstr_info(codec));
    if (!info) return reason.refuse("not enough memory");
    const Frame frame = frameOf(image);
    const std::uint64_t tilePixels = std::min<std::uint64_t>(info->tdx, frame.wide()) *
                                     std::min<std::uint64_t>(info->tdy, frame.high());
    if (tilePixels * image.numcomps > kMaximumSamplesOfTile) {
        reason.set("a tile of too many pixels");
        return 0;
    }
    const std::uint64_t tiles = std::uint64_t{info->tw} * info->th;
    // Each has a header of 12 bytes and a mark.
    if (tiles > 65'535) reason.set("too many tiles");
    return tiles > 65'535 ? 0 : tiles;
}

bool readTiles(opj_codec_t* codec, Jpeg2000Stream& stream, opj_image_t& image, Target& target) {
    Reason& reason = target.reason();
    const Frame whole = frameOf(image);
    const std::uint64_t tiles = countTiles(codec, image, reason);
    if (tiles == 0) return reason.refuse("no tiles");
    std::uint8_t* rgba = nullptr;
    for (std::uint64_t i = 0; i < tiles; ++i) {
        if (!opj_get_decoded_tile(codec, stream.stream(), &image, static_cast<OPJ_UINT32>(i)))
            return reason.refuse("damaged pixels");
        if (i == 0) {
            // Only now the file's profile is known, and that its pixels are there at all.
            if (image.icc_profile_buf &&
                !target.takeProfile({image.icc_profile_buf, image.icc_profile_len}))
                return false;
            rgba = target.begin(whole.wide(), whole.high());
            if (!rgba) return false;
        }
        if (!copyTile(image, whole, rgba)) return reason.refuse("channels that are not understood");
    }
    return true;
}

std::uint64_t numberAt(Bytes bytes, std::size_t at) {
    return std::uint64_t{bytes[at]} << 24 | std::uint64_t{bytes[at + 1]} << 16 |
           std::uint64_t{bytes[at + 2]} << 8 | bytes[at + 3];
}

// The codestream in the boxes of a file, each of which begins with its length and its kind; empty
// when there is none.
Bytes codestreamOf(Bytes file) {
    std::size_t at = 0;
    while (at <= file.size() && file.size() - at >= 16) {
        const bool isCodestream = beginsWith(file.data(), file.size(), "jp2c", 4, at + 4);
        const std::uint64_t length = numberAt(file, at);
        // 1 is followed by the true length in 8 bytes, 0 is to the end of the file.
        if (isCodestream) return file.subspan(at + (length == 1 ? 16 : 8));
        const std::uint64_t size =
            length == 1 ? numberAt(file, at + 8) << 32 | numberAt(file, at + 12) : length;
        if (size < 8 || size > file.size() - at) break;
        at += static_cast<std::size_t>(size);
    }
    return {};
}

// Looks at the sizes that a codestream begins with, before OpenJPEG makes room for each tile that
// they promise, which is some kilobytes a channel.
bool sizesAreSound(Bytes codestream, Target& target) {
    constexpr std::size_t kSizes = 42;
    constexpr std::uint64_t kLeastOfTile = 14;  // its header, and the mark before its data
    if (codestream.size() < kSizes ||
        !beginsWith(codestream.data(), codestream.size(), "\xff\x4f\xff\x51", 4))
        return target.reason().refuse("damaged header");
    const auto number = [codestream](std::size_t at) { return numberAt(codestream, at); };
    const std::uint64_t right = number(8), bottom = number(12), left = number(16), top = number(20);
    const std::uint64_t tileWide = number(24), tileHigh = number(28);
    const std::uint64_t tileLeft = number(32), tileTop = number(36);
    if (left >= right || top >= bottom || tileLeft > left || tileTop > top || tileWide == 0 ||
        tileHigh == 0)
        return target.reason().refuse("damaged header");
    const std::uint64_t tiles = ((right - tileLeft + tileWide - 1) / tileWide) *
                                ((bottom - tileTop + tileHigh - 1) / tileHigh);
    const unsigned components = codestream[40] * 256u + codestream[41];
    if (components == 0 || components > kMaximumComponents)
        return target.reason().refuse("an unknown number of channels");
    if (tiles > codestream.size() / kLeastOfTile)
        return target.reason().refuse("more tiles than the file can hold");
    return target.accepts(right - left, bottom - top, kPixelsPerByte);
}

}  // namespace

bool decodeJpeg2000(Bytes bytes, Target& target) {
    Reason& reason = target.reason();
    const bool isFile = imageSignature(bytes.data(), bytes.size()) == ImageSignature::JPEG2000;
    if (!sizesAreSound(isFile ? codestreamOf(bytes) : bytes, target)) return false;
    const Jpeg2000Codec codec(opj_create_decompress(isFile ? OPJ_CODEC_JP2 : OPJ_CODEC_J2K));
    Jpeg2000Stream stream(bytes);
    if (!codec || !stream.stream()) return reason.refuse("not enough memory");
    reportTo(reason, codec.get());
    opj_dparameters_t parameters;
    opj_set_default_decoder_parameters(&parameters);
    if (!opj_setup_decoder(codec.get(), &parameters)) return reason.refuse("not enough memory");
    opj_image_t* header = nullptr;
    const bool isRead = opj_read_header(stream.stream(), codec.get(), &header);
    const Jpeg2000Image image(header);
    if (!isRead || !image) return reason.refuse("damaged header");
    if (image->x1 <= image->x0 || image->y1 <= image->y0) return reason.refuse("no pixels");
    if (image->numcomps == 0 || image->numcomps > kMaximumComponents)
        return reason.refuse("an unknown number of channels");
    const Frame frame = frameOf(*image);
    return target.accepts(frame.wide(), frame.high(), kPixelsPerByte) &&
           readTiles(codec.get(), stream, *image, target);
}

}  // namespace utilia::platform::bitmaps
