#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <tiffio.h>

#include "Common/Foundation/Value.h"

namespace utilia::test {

// One directory of a TIFF file as a stranger might write it.
struct TiffPicture {
    std::uint32_t width = 21;
    std::uint32_t height = 13;
    std::uint16_t bits = 8;
    std::uint16_t samples = 4;
    std::uint16_t photometric = PHOTOMETRIC_RGB;
    std::vector<std::uint16_t> extraSamples = {EXTRASAMPLE_UNASSALPHA};
    std::uint16_t planes = PLANARCONFIG_CONTIG;
    std::uint16_t compression = COMPRESSION_NONE;
    std::uint16_t predictor = PREDICTOR_NONE;
    std::uint16_t orientation = ORIENTATION_TOPLEFT;
    std::uint32_t tile = 0;  // side of a tile; 0 for strips
    std::uint32_t rowsPerStrip = 5;
    std::vector<std::uint16_t> palette =
        {};  // red, green and blue entries, one kind after the other

    // The stored sample; it uses no more than `bits`.
    std::function<unsigned(std::uint32_t x, std::uint32_t y, unsigned sample)> sampleAt = {};

    // Samples that differ everywhere, and premultiplied ones where alpha is associated.
    unsigned defaultSample(std::uint32_t x, std::uint32_t y, unsigned sample) const;
    unsigned sample(std::uint32_t x, std::uint32_t y, unsigned index) const {
        return sampleAt ? sampleAt(x, y, index) : defaultSample(x, y, index);
    }
    unsigned maximum() const { return (1u << bits) - 1; }
};

// A file of these directories, written by libtiff.
Data makeTiff(const std::vector<TiffPicture>& pictures);

// Where the entries of a directory begin, and where they end and the place of the next directory is
// told.
struct EntryTable {
    std::size_t begin;
    std::size_t end;
};
EntryTable entryTable(const Data& file, unsigned directory);

// The same file with another value in an entry that holds its value itself.
Data withEntry(Data file, std::uint32_t tag, std::uint32_t value, unsigned directory = 0);

// What a directory of a file says in one of its 16-bit fields.
std::uint16_t tiffField(const Data& file, std::uint16_t directory, std::uint32_t tag);

}  // namespace utilia::test
