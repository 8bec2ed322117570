#include "Tests/Unit/Images/TiffFixture.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>

#include "Tests/Support/TemporaryHome.h"

namespace utilia::test {
namespace {

using TiffPointer = std::unique_ptr<TIFF, void (*)(TIFF*)>;

void check(bool done, const char* what) {
    if (!done) throw std::runtime_error(what);
}

// Packs the samples of a rectangle of the picture, padded to its full width with zeros.
std::vector<std::uint8_t> packed(const TiffPicture& picture, std::uint32_t left, std::uint32_t top,
                                 std::uint32_t columns, std::uint32_t rows, unsigned plane) {
    const bool separate = picture.planes == PLANARCONFIG_SEPARATE;
    const unsigned perPixel = separate ? 1 : picture.samples;
    const std::size_t rowBytes = (std::size_t{columns} * perPixel * picture.bits + 7) / 8;
    std::vector<std::uint8_t> bytes(rowBytes * rows);
    for (std::uint32_t y = 0; y < rows && top + y < picture.height; ++y) {
        std::uint8_t* row = bytes.data() + rowBytes * y;
        for (std::uint32_t x = 0; x < columns && left + x < picture.width; ++x) {
            for (unsigned s = 0; s < perPixel; ++s) {
                const unsigned value = picture.sample(left + x, top + y, separate ? plane : s);
                const std::size_t index = std::size_t{x} * perPixel + s;
                if (picture.bits == 16) {
                    const auto wide = static_cast<std::uint16_t>(value);
                    std::memcpy(row + 2 * index, &wide, sizeof wide);
                } else {
                    const std::size_t bit = index * picture.bits;
                    row[bit / 8] = static_cast<std::uint8_t>(row[bit / 8] |
                                                             value << (8 - picture.bits - bit % 8));
                }
            }
        }
    }
    return bytes;
}

void setFields(TIFF* tiff, const TiffPicture& picture) {
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, picture.width);
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, picture.height);
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, picture.bits);
    TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, picture.samples);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, picture.photometric);
    TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, picture.planes);
    TIFFSetField(tiff, TIFFTAG_ORIENTATION, picture.orientation);
    TIFFSetField(tiff, TIFFTAG_COMPRESSION, picture.compression);
    if (picture.predictor != PREDICTOR_NONE)
        TIFFSetField(tiff, TIFFTAG_PREDICTOR, picture.predictor);
    if (!picture.extraSamples.empty()) {
        TIFFSetField(tiff, TIFFTAG_EXTRASAMPLES, picture.extraSamples.size(),
                     picture.extraSamples.data());
    }
    if (!picture.palette.empty()) {
        const std::size_t entries = picture.palette.size() / 3;
        TIFFSetField(tiff, TIFFTAG_COLORMAP, picture.palette.data(),
                     picture.palette.data() + entries, picture.palette.data() + 2 * entries);
    }
    if (picture.tile) {
        TIFFSetField(tiff, TIFFTAG_TILEWIDTH, picture.tile);
        TIFFSetField(tiff, TIFFTAG_TILELENGTH, picture.tile);
    } else {
        TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, picture.rowsPerStrip);
    }
}

void writePlane(TIFF* tiff, const TiffPicture& picture, std::uint16_t plane) {
    if (picture.tile) {
        for (std::uint32_t top = 0; top < picture.height; top += picture.tile) {
            for (std::uint32_t left = 0; left < picture.width; left += picture.tile) {
                auto bytes = packed(picture, left, top, picture.tile, picture.tile, plane);
                check(TIFFWriteTile(tiff, bytes.data(), left, top, 0, plane) >= 0, "TIFFWriteTile");
            }
        }
        return;
    }
    for (std::uint32_t top = 0; top < picture.height; top += picture.rowsPerStrip) {
        const std::uint32_t rows = std::min(picture.rowsPerStrip, picture.height - top);
        auto bytes = packed(picture, 0, top, picture.width, rows, plane);
        const std::uint32_t strip = TIFFComputeStrip(tiff, top, plane);
        check(TIFFWriteEncodedStrip(tiff, strip, bytes.data(),
                                    static_cast<tmsize_t>(bytes.size())) >= 0,
              "TIFFWriteEncodedStrip");
    }
}

}  // namespace

unsigned TiffPicture::defaultSample(std::uint32_t x, std::uint32_t y, unsigned index) const {
    const unsigned colours = photometric == PHOTOMETRIC_RGB ? 3 : 1;
    const bool associated = !extraSamples.empty() && extraSamples.front() == EXTRASAMPLE_ASSOCALPHA;
    const unsigned alpha = (x * 37 + y * 11) * (maximum() / 15 + 1) % (maximum() + 1);
    if (index >= colours) return alpha;
    const unsigned colour =
        (x * 7 + y * 29 + index * 53 + 3) * (maximum() / 31 + 1) % (maximum() + 1);
    return associated ? colour % (alpha + 1) : colour;
}

Data makeTiff(const std::vector<TiffPicture>& pictures) {
    const TemporaryFolder folder;
    const std::string path = (folder.path() / "fixture.tiff").string();
    {
        const TiffPointer tiff(TIFFOpen(path.c_str(), "wl"), TIFFClose);
        check(tiff != nullptr, "TIFFOpen");
        for (const TiffPicture& picture : pictures) {
            setFields(tiff.get(), picture);
            const std::uint16_t planes =
                picture.planes == PLANARCONFIG_SEPARATE ? picture.samples : std::uint16_t{1};
            for (std::uint16_t plane = 0; plane < planes; ++plane)
                writePlane(tiff.get(), picture, plane);
            check(TIFFWriteDirectory(tiff.get()) != 0, "TIFFWriteDirectory");
        }
    }
    std::ifstream file(path, std::ios::binary);
    return Data(std::istreambuf_iterator<char>(file), {});
}

namespace {

std::size_t number(const Data& file, std::size_t at, unsigned bytes) {
    std::size_t value = 0;
    for (unsigned i = 0; i < bytes; ++i) value |= std::size_t{file.at(at + i)} << 8 * i;
    return value;
}

}  // namespace

EntryTable entryTable(const Data& file, unsigned directory) {
    std::size_t place = number(file, 4, 4);
    for (;; --directory) {
        const EntryTable table{place + 2, place + 2 + 12 * number(file, place, 2)};
        if (directory == 0) return table;
        place = number(file, table.end, 4);
    }
}

Data withEntry(Data file, std::uint32_t tag, std::uint32_t value, unsigned directory) {
    const EntryTable table = entryTable(file, directory);
    for (std::size_t entry = table.begin; entry < table.end; entry += 12) {
        if (number(file, entry, 2) != tag) continue;
        file.at(entry + 2) = TIFF_LONG;
        check(number(file, entry + 4, 4) == 1 || tag == TIFFTAG_BITSPERSAMPLE,
              "an entry of one value");
        for (unsigned i = 0; i < 4; ++i)
            file.at(entry + 8 + i) = static_cast<std::uint8_t>(value >> 8 * i);
        return file;
    }
    throw std::runtime_error("no such entry");
}

std::uint16_t tiffField(const Data& file, std::uint16_t directory, std::uint32_t tag) {
    const TemporaryFolder folder;
    const std::string path = (folder.path() / "probe.tiff").string();
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(file.data()),
               static_cast<std::streamsize>(file.size()));
    const TiffPointer tiff(TIFFOpen(path.c_str(), "r"), TIFFClose);
    std::uint16_t value = 0;
    check(tiff && TIFFSetDirectory(tiff.get(), directory) && TIFFGetField(tiff.get(), tag, &value),
          "TIFFGetField");
    return value;
}

}  // namespace utilia::test
