#include "Common/Platform/Linux/Modules/Icons/TiffReader.h"

#include <algorithm>
#include <optional>
#include <vector>

#include "Common/Platform/Image.h"
#include "Common/Platform/Linux/Modules/Icons/PixelConversion.h"
#include "Common/Platform/Linux/Modules/Orientation.h"

// Reading TIFF from bytes that another process chose.
//
// libtiff parses the directories and undoes the compression; what it answers is not believed.
// Before a pixel is decoded, a directory must pass checks that bound what decoding can cost: its
// sides and pixels, the kinds of samples, the size of a tile, the size of everything decoded in
// proportion to the size of the file (no codec that is read packs better than kMaximumRatio), and
// the sum of its strips' sizes (strips that share bytes would make a small file endless work). So a
// few hundred bytes can neither allocate nor keep busy beyond their worth.
//
// Only the codecs that icons are written with are read: none, PackBits, LZW and Deflate. Each
// further one would be another parser that strangers can feed. Rows come one at a time, except in
// tiles, so that looking over a picture needs the memory of a row.
//
// A picture that a file begins with is decoded once before the file is called an image. Beyond
// kVerifiedBytes, which a 4096-pixel square icon fits in, that would take noticeable time for what
// may never be shown: damage past it is found when the pixels are asked for.

namespace utilia::platform::icons {
namespace {

constexpr std::uint64_t kMaximumDecodedBytes = kImageMaximumPixels * 4;
constexpr std::uint64_t kMaximumTileBytes = 64u << 20;
constexpr std::uint64_t kMaximumRatio =
    4096;  // LZW's best: 12 bits for a text of at most 3,838 bytes
constexpr std::uint64_t kRatioSlack = 64 << 10;
constexpr std::uint64_t kVerifiedBytes = 64u << 20;
constexpr unsigned kMaximumSamples = 8;

// What a directory says about itself, after the checks.
struct Directory {
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::uint32_t tileWidth = 0;  // 0: strips
    std::uint32_t tileHeight = 0;
    Orientation orientation;
    UtiliaIconsCompression compression = UtiliaIconsUncompressed;
    bool separate = false;  // a plane for each sample
    PixelLayout layout;

    bool swapsSides() const { return orientation.swapsSides(); }
};

template <class T>
T field(TIFF* tiff, std::uint32_t tag, T otherwise) {
    T value = otherwise;
    return TIFFGetFieldDefaulted(tiff, tag, &value) ? value : otherwise;
}

std::optional<UtiliaIconsCompression> compressionOf(TIFF* tiff) {
    switch (field<std::uint16_t>(tiff, TIFFTAG_COMPRESSION, COMPRESSION_NONE)) {
    case COMPRESSION_NONE:
        return UtiliaIconsUncompressed;
    case COMPRESSION_PACKBITS:
        return UtiliaIconsPackBits;
    case COMPRESSION_LZW:
        return UtiliaIconsLZW;
    case COMPRESSION_DEFLATE:
    case COMPRESSION_ADOBE_DEFLATE:
        return UtiliaIconsDeflate;
    default:
        return std::nullopt;
    }
}

std::optional<ColourModel> colourModelOf(TIFF* tiff) {
    std::uint16_t photometric = 0;
    if (!TIFFGetField(tiff, TIFFTAG_PHOTOMETRIC, &photometric)) return std::nullopt;
    switch (photometric) {
    case PHOTOMETRIC_MINISBLACK:
        return ColourModel::BlackIsZero;
    case PHOTOMETRIC_MINISWHITE:
        return ColourModel::WhiteIsZero;
    case PHOTOMETRIC_RGB:
        return ColourModel::RGB;
    case PHOTOMETRIC_PALETTE:
        return ColourModel::Palette;
    default:
        return std::nullopt;
    }
}

bool readPalette(TIFF* tiff, PixelLayout& layout) {
    std::uint16_t *red = nullptr, *green = nullptr, *blue = nullptr;
    if (layout.bits > 8 || !TIFFGetField(tiff, TIFFTAG_COLORMAP, &red, &green, &blue)) return false;
    if (!red || !green || !blue) return false;
    layout.palette = {red, green, blue};
    // Some writers fill the map with 8-bit values.
    const std::size_t entries = std::size_t{1} << layout.bits;
    const bool isWide = std::any_of(
        layout.palette.begin(), layout.palette.end(), [entries](const std::uint16_t* map) {
            return std::any_of(map, map + entries, [](std::uint16_t value) { return value > 255; });
        });
    layout.paletteShift = isWide ? 8 : 0;
    return true;
}

std::optional<PixelLayout> layoutOf(TIFF* tiff) {
    PixelLayout layout;
    layout.bits = field<std::uint16_t>(tiff, TIFFTAG_BITSPERSAMPLE, 1);
    layout.samples = field<std::uint16_t>(tiff, TIFFTAG_SAMPLESPERPIXEL, 1);
    const auto format = field<std::uint16_t>(tiff, TIFFTAG_SAMPLEFORMAT, SAMPLEFORMAT_UINT);
    const auto colour = colourModelOf(tiff);
    const bool bitsAreKnown = layout.bits == 1 || layout.bits == 2 || layout.bits == 4 ||
                              layout.bits == 8 || layout.bits == 16;
    if (!colour || !bitsAreKnown || (format != SAMPLEFORMAT_UINT && format != SAMPLEFORMAT_VOID))
        return std::nullopt;
    layout.colour = *colour;
    if (layout.samples < layout.colourSamples() || layout.samples > kMaximumSamples)
        return std::nullopt;
    if (layout.colour == ColourModel::Palette && !readPalette(tiff, layout)) return std::nullopt;

    std::uint16_t extraCount = 0;
    std::uint16_t* extras = nullptr;
    if (!TIFFGetField(tiff, TIFFTAG_EXTRASAMPLES, &extraCount, &extras)) extraCount = 0;
    // Without memory for the list, libtiff counts on.
    if (extraCount > 0 && !extras) return std::nullopt;
    for (unsigned i = 0; i < extraCount && layout.colourSamples() + i < layout.samples; ++i) {
        if (extras[i] != EXTRASAMPLE_ASSOCALPHA && extras[i] != EXTRASAMPLE_UNASSALPHA) continue;
        layout.alpha =
            extras[i] == EXTRASAMPLE_ASSOCALPHA ? AlphaModel::Associated : AlphaModel::Unassociated;
        layout.alphaSample = layout.colourSamples() + i;
        break;
    }
    return layout;
}

bool sidesAreWithinLimits(std::uint64_t width, std::uint64_t height) {
    return width > 0 && height > 0 && width <= kImageMaximumSide && height <= kImageMaximumSide &&
           width * height <= kImageMaximumPixels;
}

// Whether decoding costs no more than the file is worth.
bool costIsWithinLimits(TIFF* tiff, const Directory& directory, std::uint64_t fileSize) {
    const std::uint64_t bitsPerPixel =
        std::uint64_t{directory.layout.bits} * directory.layout.samples;
    std::uint64_t decoded = (directory.width * bitsPerPixel + 7) / 8 * directory.height;
    if (directory.tileWidth) {
        const std::uint64_t tile =
            (directory.tileWidth * bitsPerPixel + 7) / 8 * directory.tileHeight;
        const std::uint64_t across =
            (directory.width + std::uint64_t{directory.tileWidth} - 1) / directory.tileWidth;
        const std::uint64_t down =
            (directory.height + std::uint64_t{directory.tileHeight} - 1) / directory.tileHeight;
        if (tile > kMaximumTileBytes) return false;
        decoded = tile * across * down;
    }
    if (decoded > kMaximumDecodedBytes || decoded > fileSize * kMaximumRatio + kRatioSlack)
        return false;

    std::uint64_t* sizes = nullptr;
    if (!TIFFGetField(tiff, directory.tileWidth ? TIFFTAG_TILEBYTECOUNTS : TIFFTAG_STRIPBYTECOUNTS,
                      &sizes) ||
        !sizes) {
        return false;
    }
    const std::uint32_t count =
        directory.tileWidth ? TIFFNumberOfTiles(tiff) : TIFFNumberOfStrips(tiff);
    std::uint64_t left = fileSize * 2;
    for (std::uint32_t i = 0; i < count; ++i) {
        if (sizes[i] > left) return false;
        left -= sizes[i];
    }
    return true;
}

// The current directory of the file, or nothing when it is beyond the limits or of a kind that is
// not read.
std::optional<Directory> checkedDirectory(TIFF* tiff, std::uint64_t fileSize) {
    Directory directory;
    directory.width = field<std::uint32_t>(tiff, TIFFTAG_IMAGEWIDTH, 0);
    directory.height = field<std::uint32_t>(tiff, TIFFTAG_IMAGELENGTH, 0);
    if (!sidesAreWithinLimits(directory.width, directory.height)) return std::nullopt;
    if (field<std::uint32_t>(tiff, TIFFTAG_IMAGEDEPTH, 1) != 1) return std::nullopt;

    const auto compression = compressionOf(tiff);
    const auto layout = layoutOf(tiff);
    if (!compression || !layout) return std::nullopt;
    directory.compression = *compression;
    directory.layout = *layout;
    directory.separate = layout->samples > 1 &&
                         field<std::uint16_t>(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG) ==
                             PLANARCONFIG_SEPARATE;
    if (directory.separate && (layout->bits < 8 || layout->colour == ColourModel::Palette))
        return std::nullopt;
    directory.orientation =
        Orientation(field<std::uint16_t>(tiff, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT));

    if (TIFFIsTiled(tiff)) {
        directory.tileWidth = field<std::uint32_t>(tiff, TIFFTAG_TILEWIDTH, 0);
        directory.tileHeight = field<std::uint32_t>(tiff, TIFFTAG_TILELENGTH, 0);
        if (!directory.tileWidth || !directory.tileHeight) return std::nullopt;
        if (directory.tileWidth > kMaximumTileBytes || directory.tileHeight > kMaximumTileBytes)
            return std::nullopt;
    }
    if (!costIsWithinLimits(tiff, directory, fileSize)) return std::nullopt;
    return directory;
}

// Takes decoded rows, in the file's orientation; without pixels it only looks at how much there
// was.
class PixelSink final {
public:
    PixelSink(const Directory& directory, std::uint8_t* rgba)
        : directory_(directory), rgba_(rgba) {}

    // `count` pixels of one row from column `x`: all samples of them, or those of one plane.
    void take(unsigned plane, std::uint32_t x, std::uint32_t y, const std::uint8_t* row,
              std::uint32_t count) {
        if (!rgba_) return;
        std::uint8_t* to = rgba_ + (std::size_t{y} * directory_.width + x) * 4;
        if (!directory_.separate) {
            convertPixels(directory_.layout, row, to, count);
        } else if (plane < directory_.layout.colourSamples() ||
                   (directory_.layout.alpha != AlphaModel::None &&
                    plane == directory_.layout.alphaSample)) {
            convertPlane(directory_.layout, plane, row, to, count);
        }
    }

    // Counts what was decoded; answers false when a look has seen enough.
    bool goesOn(std::uint64_t decodedBytes) {
        decoded_ += decodedBytes;
        return rgba_ || decoded_ < kVerifiedBytes;
    }

    void finish() {
        if (rgba_ && directory_.separate && directory_.layout.alpha == AlphaModel::Associated) {
            divideByAlpha(rgba_, std::size_t{directory_.width} * directory_.height);
        }
    }

private:
    const Directory& directory_;
    std::uint8_t* rgba_;
    std::uint64_t decoded_ = 0;
};

bool readStrips(TIFF* tiff, const Directory& directory, PixelSink& sink) {
    const tmsize_t rowSize = TIFFScanlineSize(tiff);
    if (rowSize <= 0) return false;
    std::vector<std::uint8_t> row(static_cast<std::size_t>(rowSize));
    const unsigned planes = directory.separate ? directory.layout.samples : 1;
    for (unsigned plane = 0; plane < planes; ++plane) {
        for (std::uint32_t y = 0; y < directory.height; ++y) {
            if (TIFFReadScanline(tiff, row.data(), y, static_cast<std::uint16_t>(plane)) < 0)
                return false;
            sink.take(plane, 0, y, row.data(), directory.width);
            if (!sink.goesOn(row.size())) return true;
        }
    }
    return true;
}

bool readTiles(TIFF* tiff, const Directory& directory, PixelSink& sink) {
    const tmsize_t tileSize = TIFFTileSize(tiff);
    const tmsize_t rowSize = TIFFTileRowSize(tiff);
    if (tileSize <= 0 || rowSize <= 0 || static_cast<std::uint64_t>(tileSize) > kMaximumTileBytes)
        return false;
    std::vector<std::uint8_t> tile(static_cast<std::size_t>(tileSize));
    const unsigned planes = directory.separate ? directory.layout.samples : 1;
    for (unsigned plane = 0; plane < planes; ++plane) {
        for (std::uint32_t top = 0; top < directory.height; top += directory.tileHeight) {
            const std::uint32_t rows = std::min(directory.tileHeight, directory.height - top);
            for (std::uint32_t left = 0; left < directory.width; left += directory.tileWidth) {
                if (TIFFReadTile(tiff, tile.data(), left, top, 0,
                                 static_cast<std::uint16_t>(plane)) < 0)
                    return false;
                const std::uint32_t columns = std::min(directory.tileWidth, directory.width - left);
                for (std::uint32_t y = 0; y < rows; ++y) {
                    sink.take(plane, left, top + y,
                              tile.data() + static_cast<std::size_t>(rowSize) * y, columns);
                }
                if (!sink.goesOn(tile.size())) return true;
            }
        }
    }
    return true;
}

bool readPixels(TIFF* tiff, const Directory& directory, std::uint8_t* rgba) {
    PixelSink sink(directory, rgba);
    if (!(directory.tileWidth ? readTiles(tiff, directory, sink)
                              : readStrips(tiff, directory, sink)))
        return false;
    sink.finish();
    return true;
}

bool passProfileOn(TIFF* tiff, const UtiliaIconsProfileTaker& profile) {
    std::uint32_t size = 0;
    const std::uint8_t* bytes = nullptr;
    if (!TIFFGetField(tiff, TIFFTAG_ICCPROFILE, &size, &bytes) || !bytes || size == 0) return true;
    return profile.take(profile.context, bytes, size);
}

}  // namespace

std::size_t listDirectories(std::span<const std::uint8_t> bytes,
                            std::span<UtiliaIconsDirectory> directories) {
    TiffFile file(bytes, Reason(nullptr));
    TIFF* tiff = file.tiff();
    if (!tiff) return 0;
    std::size_t count = 0;
    for (std::uint32_t number = 0;; ++number) {
        if (number >= directories.size()) return count;
        const auto directory = checkedDirectory(tiff, bytes.size());
        if (number == 0 && (!directory || !readPixels(tiff, *directory, nullptr))) return 0;
        if (directory) {
            const bool swaps = directory->swapsSides();
            directories[count++] = {number, swaps ? directory->height : directory->width,
                                    swaps ? directory->width : directory->height,
                                    directory->compression};
        }
        // A chain that breaks off or returns to itself ends there.
        if (!TIFFReadDirectory(tiff)) return count;
    }
}

bool decodeDirectory(std::span<const std::uint8_t> bytes, std::uint32_t number,
                     std::span<std::uint8_t> rgba, const UtiliaIconsProfileTaker& profile,
                     Reason reason) {
    TiffFile file(bytes, reason);
    TIFF* tiff = file.tiff();
    const auto directory = tiff && TIFFSetDirectory(tiff, number)
                               ? checkedDirectory(tiff, bytes.size())
                               : std::nullopt;
    if (!directory || rgba.size() != std::size_t{directory->width} * directory->height * 4) {
        file.reason().set("no such picture");
        return false;
    }
    if (!passProfileOn(tiff, profile)) return file.reason().refuse("not enough memory");
    const bool inPlace = directory->orientation.isUpright();
    std::vector<std::uint8_t> stored(inPlace ? 0 : rgba.size());
    if (!readPixels(tiff, *directory, inPlace ? rgba.data() : stored.data())) {
        file.reason().set("damaged pixels");
        return false;
    }
    if (inPlace) return true;
    for (std::size_t y = 0; y < directory->height; ++y) {
        directory->orientation.placeRow(stored.data() + y * directory->width * 4, y,
                                        directory->width, directory->height, rgba.data());
    }
    return true;
}

}  // namespace utilia::platform::icons
