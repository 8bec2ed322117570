#include "Common/Platform/Linux/Modules/Export/BandCompressor.h"

#include <algorithm>
#include <array>
#include <new>

#include <libdeflate.h>

#include "Common/Platform/Linux/Modules/Export/DeflateBlocks.h"

// libdeflate is the fastest there is, but compresses whole buffers only, and marks the end of each
// as the end of all. A picture of half a gigabyte must not be in memory a second time, and wants
// more than one core. So its rows are compressed in bands, and all but the last are made to go on:
// the mark of the band's final block is cleared, and an empty stored block, which ends on a byte by
// its nature, is put behind it. Finding that block costs six hundredths of the time.
//
// No band refers back to the one before it, which costs less than a hundredth of the size.

namespace utilia::platform::pdf {
namespace {

// With predicted rows of screenshots, 5 is a fifth faster than 6 and its output a hundredth larger.
constexpr int kLevel = 5;

constexpr std::uint32_t kAdlerModulus = 65'521;

// An empty stored block: three bits of zero, zeros up to the next byte, a length of 0 and its
// complement.
constexpr std::size_t kEmptyBlockMaximum = 1 + 4;

// The stream of `size` bytes can go on behind the size that is answered. There are
// kEmptyBlockMaximum more bytes of room. Answers 0 for what is no Deflate.
std::size_t leaveOpen(std::uint8_t* deflated, std::size_t size) {
    const auto block = findFinalBlock({deflated, size});
    if (!block) return 0;
    std::uint8_t& marked = deflated[block->firstBit / 8];
    marked = static_cast<std::uint8_t>(marked & ~(1u << (block->firstBit % 8)));
    std::size_t end = (block->endBit + 3 + 7) / 8;
    std::fill(deflated + size, deflated + std::max(size, end), std::uint8_t{0});
    constexpr std::array<std::uint8_t, 4> kNoLength = {0x00, 0x00, 0xff, 0xff};
    for (const std::uint8_t byte : kNoLength) deflated[end++] = byte;
    return end;
}

}  // namespace

BandCompressor::BandCompressor() : compressor_(libdeflate_alloc_compressor(kLevel)) {
    if (!compressor_) throw std::bad_alloc();
}

BandCompressor::~BandCompressor() { libdeflate_free_compressor(compressor_); }

void BandCompressor::reserve(std::unique_ptr<std::uint8_t[]>& buffer, std::size_t& capacity,
                             std::size_t size) {
    if (size <= capacity) return;
    buffer.reset();
    capacity = 0;
    buffer = std::make_unique_for_overwrite<std::uint8_t[]>(size);
    capacity = size;
}

std::optional<CompressedBand> BandCompressor::compress(const Band& band) {
    const std::size_t rowBytes = predictedRowBytes(band.plane, band.pixelsWide);
    const std::size_t size = rowBytes * band.rows;
    reserve(predicted_, predictedCapacity_, size);
    for (std::size_t y = 0; y < band.rows; ++y) {
        predictRow(band.plane, band.rgba + y * band.pixelsWide * 4, band.pixelsWide,
                   predicted_.get() + y * rowBytes);
    }
    return compress(predicted_.get(), size, band.isLast);
}

std::optional<CompressedBand> BandCompressor::compress(const std::uint8_t* bytes, std::size_t size,
                                                       bool isLast) {
    const std::size_t bound = libdeflate_deflate_compress_bound(compressor_, size);
    reserve(deflated_, deflatedCapacity_, bound + kEmptyBlockMaximum);
    std::uint8_t* const deflated = deflated_.get();
    std::size_t deflatedSize =
        libdeflate_deflate_compress(compressor_, bytes, size, deflated, bound);
    if (!isLast && deflatedSize > 0) deflatedSize = leaveOpen(deflated, deflatedSize);
    if (deflatedSize == 0) return std::nullopt;
    return CompressedBand{
        {deflated, deflated + deflatedSize}, libdeflate_adler32(1, bytes, size), size};
}

std::uint32_t combinedChecksum(std::uint32_t first, std::uint32_t second, std::size_t secondSize) {
    const std::uint32_t sumBefore = (first & 0xffff) + kAdlerModulus - 1;
    const std::uint32_t sum = (sumBefore + (second & 0xffff)) % kAdlerModulus;
    const std::uint64_t carried = std::uint64_t{sumBefore % kAdlerModulus} *
                                  static_cast<std::uint32_t>(secondSize % kAdlerModulus);
    const auto sumOfSums =
        static_cast<std::uint32_t>(((first >> 16) + (second >> 16) + carried) % kAdlerModulus);
    return (sumOfSums << 16) | sum;
}

}  // namespace utilia::platform::pdf
