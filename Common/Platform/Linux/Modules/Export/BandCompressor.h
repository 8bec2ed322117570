#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "Common/Platform/Linux/Modules/Export/PdfPixels.h"

struct libdeflate_compressor;

namespace utilia::platform::pdf {

// Rows of a picture that are compressed at once: all of it, or a part of a large one.
struct Band {
    Plane plane = Plane::RGB;
    const std::uint8_t* rgba = nullptr;
    std::uint32_t pixelsWide = 0;
    std::uint32_t rows = 0;
    bool isLast = false;  // of its picture
};

// The predicted rows as raw Deflate, which ends on a byte. That of bands but the last one goes on
// behind it: one after the other they are one stream.
struct CompressedBand {
    std::vector<std::uint8_t> deflated;
    std::uint32_t checksum = 1;  // Adler-32 of the predicted rows
    std::size_t size = 0;        // of the predicted rows
};

// Compresses bands one after the other, and keeps what it needs for that.
//
// Threads: one at a time.
class BandCompressor final {
public:
    BandCompressor();
    ~BandCompressor();
    BandCompressor(const BandCompressor&) = delete;
    BandCompressor& operator=(const BandCompressor&) = delete;

    // Throws std::bad_alloc. Empty when the compressor makes what is no Deflate, which is a mistake
    // of its own or of ours.
    std::optional<CompressedBand> compress(const Band& band);
    std::optional<CompressedBand> compress(const std::uint8_t* bytes, std::size_t size,
                                           bool isLast);

private:
    void reserve(std::unique_ptr<std::uint8_t[]>& buffer, std::size_t& capacity, std::size_t size);

    libdeflate_compressor* compressor_;
    std::unique_ptr<std::uint8_t[]> predicted_;
    std::unique_ptr<std::uint8_t[]> deflated_;
    std::size_t predictedCapacity_ = 0;
    std::size_t deflatedCapacity_ = 0;
};

// The Adler-32 of two pieces of data one after the other, from theirs (RFC 1950, 8.2).
std::uint32_t combinedChecksum(std::uint32_t first, std::uint32_t second, std::size_t secondSize);

}  // namespace utilia::platform::pdf
