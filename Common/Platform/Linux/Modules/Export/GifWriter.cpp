#include <algorithm>
#include <memory>
#include <vector>

#include <gif_lib.h>

#include "Common/Platform/Linux/Modules/Export/Codec.h"
#include "Common/Platform/Linux/Modules/Export/Quantizer.h"

// Writing GIF with giflib: one frame that covers the canvas.

namespace utilia::platform::bitmaps {
namespace {

constexpr std::uint32_t kMaximumSide = 65'535;
constexpr std::size_t kMaximumBlock = 255;

int writeBytes(GifFileType* gif, const GifByteType* bytes, int count) {
    auto& source = *static_cast<Source*>(gif->UserData);
    return source.write(bytes, static_cast<std::size_t>(count)) ? count : 0;
}

struct Closer {
    void operator()(GifFileType* gif) const { EGifCloseFile(gif, nullptr); }
};
struct Freer {
    void operator()(ColorMapObject* map) const { GifFreeMapObject(map); }
};
using Gif = std::unique_ptr<GifFileType, Closer>;
using Map = std::unique_ptr<ColorMapObject, Freer>;

Map mapOf(const Quantizer& quantizer) {
    const auto& colours = quantizer.colours();
    int count = 2;
    while (static_cast<std::size_t>(count) < colours.size()) count *= 2;
    Map map(GifMakeMapObject(count, nullptr));
    for (std::size_t i = 0; map && i < colours.size(); ++i)
        map->Colors[i] = {colours[i][0], colours[i][1], colours[i][2]};
    return map;
}

bool writeProfile(GifFileType* gif, Bytes profile) {
    if (profile.empty()) return true;
    if (EGifPutExtensionLeader(gif, APPLICATION_EXT_FUNC_CODE) != GIF_OK ||
        EGifPutExtensionBlock(gif, 11, "ICCRGBG1012") != GIF_OK)
        return false;
    while (!profile.empty()) {
        const std::size_t size = std::min(profile.size(), kMaximumBlock);
        if (EGifPutExtensionBlock(gif, static_cast<int>(size), profile.data()) != GIF_OK)
            return false;
        profile = profile.subspan(size);
    }
    return EGifPutExtensionTrailer(gif) == GIF_OK;
}

bool writeTransparency(GifFileType* gif, int transparent) {
    if (transparent < 0) return true;
    const GraphicsControlBlock control{DISPOSAL_UNSPECIFIED, false, 0, transparent};
    GifByteType block[4];
    const std::size_t size = EGifGCBToExtension(&control, block);
    return EGifPutExtension(gif, GRAPHICS_EXT_FUNC_CODE, static_cast<int>(size), block) == GIF_OK;
}

bool writeHead(GifFileType* gif, const Source& source, const Quantizer& quantizer) {
    const Map map = mapOf(quantizer);
    const int wide = static_cast<int>(source.wide()), high = static_cast<int>(source.high());
    EGifSetGifVersion(gif, true);
    return map && EGifPutScreenDesc(gif, wide, high, map->BitsPerPixel, 0, map.get()) == GIF_OK &&
           writeProfile(gif, source.profileOfRGB()) &&
           writeTransparency(gif, quantizer.transparent()) &&
           EGifPutImageDesc(gif, 0, 0, wide, high, false, nullptr) == GIF_OK;
}

}  // namespace

bool encodeGif(Source& source) {
    Reason& reason = source.reason();
    if (source.wide() > kMaximumSide || source.high() > kMaximumSide)
        return reason.refuse("GIF holds at most 65,535 pixels a side");
    Quantizer quantizer;
    if (!quantizer.choose(source)) return reason.refuse("given up");
    int error = 0;
    Gif gif(EGifOpen(&source, writeBytes, &error));
    if (!gif) return reason.refuse("not enough memory");
    if (!writeHead(gif.get(), source, quantizer)) return reason.refuse("given up");
    std::vector<GifPixelType> row(source.wide());
    for (std::size_t y = 0; y < source.high(); ++y) {
        quantizer.convertRow(source.row(y), row.data(), row.size());
        if (EGifPutLine(gif.get(), row.data(), static_cast<int>(row.size())) != GIF_OK ||
            !source.rowIsDone(y, 0.2, 0.8))
            return reason.refuse("given up");
    }
    // Its end is only written now.
    return EGifCloseFile(gif.release(), nullptr) == GIF_OK || reason.refuse("given up");
}

}  // namespace utilia::platform::bitmaps
