#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <vector>

#include <gif_lib.h>

#include "Common/Platform/Linux/Modules/Export/Codec.h"

// Reading the first frame of a GIF with giflib, on the canvas that the file names; what the frame
// does not cover is transparent, whatever background the file asks for, as browsers show it.

namespace utilia::platform::bitmaps {
namespace {

// A code of 12 bits stands for at most 3,838 pixels.
constexpr std::uint64_t kPixelsPerByte = 2560;

using Palette = std::array<std::array<std::uint8_t, 4>, 256>;

int readBytes(GifFileType* gif, GifByteType* to, int count) {
    auto& left = *static_cast<Bytes*>(gif->UserData);
    const std::size_t taken = std::min(left.size(), static_cast<std::size_t>(count));
    std::memcpy(to, left.data(), taken);
    left = left.subspan(taken);
    return static_cast<int>(taken);
}

struct Closer {
    void operator()(GifFileType* gif) const { DGifCloseFile(gif, nullptr); }
};
using Gif = std::unique_ptr<GifFileType, Closer>;

// What stands before the first frame: its transparent colour, and the profile of the file.
struct Preface {
    int transparent = NO_TRANSPARENT_COLOR;
    std::vector<std::uint8_t> profile;
};

bool readExtension(GifFileType* gif, Preface& preface) {
    int kind = 0;
    GifByteType* block = nullptr;
    if (DGifGetExtension(gif, &kind, &block) != GIF_OK) return false;
    GraphicsControlBlock control;
    if (kind == GRAPHICS_EXT_FUNC_CODE && block &&
        DGifExtensionToGCB(block[0], block + 1, &control) == GIF_OK)
        preface.transparent = control.TransparentColor;
    const bool isProfile = kind == APPLICATION_EXT_FUNC_CODE && block && block[0] == 11 &&
                           std::memcmp(block + 1, "ICCRGBG1012", 11) == 0 &&
                           preface.profile.empty();
    for (;;) {
        if (DGifGetExtensionNext(gif, &block) != GIF_OK) return false;
        if (!block) return true;
        if (isProfile)
            preface.profile.insert(preface.profile.end(), block + 1, block + 1 + block[0]);
    }
}

// Reads on to the first frame.
bool findFrame(GifFileType* gif, Preface& preface, Reason& reason) {
    for (;;) {
        GifRecordType kind = UNDEFINED_RECORD_TYPE;
        if (DGifGetRecordType(gif, &kind) != GIF_OK) return reason.refuse("damaged file");
        switch (kind) {
        case IMAGE_DESC_RECORD_TYPE:
            return DGifGetImageDesc(gif) == GIF_OK || reason.refuse("damaged frame");
        case EXTENSION_RECORD_TYPE:
            if (!readExtension(gif, preface)) return reason.refuse("damaged extension");
            break;
        default:
            return reason.refuse("no frame");
        }
    }
}

Palette paletteOf(const ColorMapObject& map, int transparent) {
    Palette palette;
    palette.fill({0, 0, 0, 255});  // of pixels that name no colour
    for (int i = 0; i < map.ColorCount && i < 256; ++i) {
        const GifColorType& colour = map.Colors[i];
        palette[static_cast<std::size_t>(i)] = {colour.Red, colour.Green, colour.Blue, 255};
    }
    if (transparent >= 0 && transparent < 256)
        palette[static_cast<std::size_t>(transparent)] = {0, 0, 0, 0};
    return palette;
}

bool readRows(GifFileType* gif, const Palette& palette, std::size_t canvasWide,
              std::uint8_t* rgba) {
    const auto side = [](GifWord word) { return static_cast<std::size_t>(word); };
    const std::size_t left = side(gif->Image.Left), top = side(gif->Image.Top);
    const std::size_t wide = side(gif->Image.Width), high = side(gif->Image.Height);
    std::vector<GifPixelType> row(wide);
    const auto readRow = [&](std::size_t y) {
        if (DGifGetLine(gif, row.data(), static_cast<int>(wide)) != GIF_OK) return false;
        std::uint8_t* to = rgba + ((top + y) * canvasWide + left) * 4;
        for (const GifPixelType index : row) {
            std::memcpy(to, palette[index].data(), 4);
            to += 4;
        }
        return true;
    };
    static constexpr std::size_t kFirst[] = {0, 4, 2, 1}, kStep[] = {8, 8, 4, 2};
    const int passes = gif->Image.Interlace ? 4 : 1;
    for (int pass = 0; pass < passes; ++pass) {
        const std::size_t first = passes == 1 ? 0 : kFirst[pass];
        for (std::size_t y = first; y < high; y += passes == 1 ? 1 : kStep[pass]) {
            if (!readRow(y)) return false;
        }
    }
    return true;
}

}  // namespace

bool decodeGif(Bytes bytes, Target& target) {
    Reason& reason = target.reason();
    int error = 0;
    const Gif gif(DGifOpen(&bytes, readBytes, &error));
    if (!gif) return reason.refuse("damaged header");
    Preface preface;
    if (!findFrame(gif.get(), preface, reason)) return false;
    const GifImageDesc& frame = gif->Image;
    if (frame.Width <= 0 || frame.Height <= 0) return reason.refuse("no pixels");
    // Some writers let the frame be larger than the canvas.
    const auto wide = static_cast<std::uint64_t>(std::max(gif->SWidth, frame.Left + frame.Width));
    const auto high = static_cast<std::uint64_t>(std::max(gif->SHeight, frame.Top + frame.Height));
    if (!target.accepts(wide, high, kPixelsPerByte)) return false;
    const ColorMapObject* const map = frame.ColorMap ? frame.ColorMap : gif->SColorMap;
    if (!map) return reason.refuse("no colours");
    if (!target.takeProfile(preface.profile)) return false;
    std::uint8_t* const rgba = target.begin(wide, high);
    if (!rgba) return false;
    std::memset(rgba, 0, wide * high * 4);
    return readRows(gif.get(), paletteOf(*map, preface.transparent), wide, rgba) ||
           reason.refuse("damaged pixels");
}

}  // namespace utilia::platform::bitmaps
