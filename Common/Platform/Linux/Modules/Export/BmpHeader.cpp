#include "Common/Platform/Linux/Modules/Export/BmpHeader.h"

#include <algorithm>
#include <bit>

namespace utilia::platform::bitmaps {
namespace {

constexpr std::size_t kFileHeader = 14;
constexpr std::size_t kCoreHeader = 12;
constexpr std::size_t kInfoHeader = 40;
constexpr std::size_t kHeaderWithAlphaMask = 56;
constexpr std::size_t kOs2Header = 64;
constexpr std::size_t kHeader5 = 124;
constexpr std::uint32_t kProfileEmbedded = 0x4d424544;  // "MBED"

// Numbers, low byte first; those beyond the end are 0.
std::uint32_t two(Bytes bytes, std::size_t at) {
    const auto byte = [&](std::size_t i) {
        return i < bytes.size() ? std::uint32_t{bytes[i]} : 0u;
    };
    return byte(at + 1) << 8 | byte(at);
}

std::uint32_t four(Bytes bytes, std::size_t at) {
    return two(bytes, at + 2) << 16 | two(bytes, at);
}

class HeaderReader final {
public:
    HeaderReader(Bytes file, Reason& reason) : file_(file), reason_(reason) {}

    bool read(BmpHeader& header) {
        size_ = four(file_, kFileHeader);
        if (size_ < kCoreHeader || file_.size() < kFileHeader + size_)
            return reason_.refuse("the header is cut off");
        info_ = file_.subspan(kFileHeader, size_);
        if (size_ != kCoreHeader && (size_ < 16 || size_ > kHeader5))
            return reason_.refuse("a header of unknown size");
        return readSides(header) && readPacking(header) && readMasks(header) &&
               readPalette(header) && findPixels(header);
    }

private:
    bool isCore() const { return size_ == kCoreHeader; }
    bool isOs2() const { return size_ == kOs2Header || (size_ >= 16 && size_ < kInfoHeader); }

    bool readSides(BmpHeader& header) const {
        if (isCore()) {
            header.wide = two(info_, 4);
            header.high = two(info_, 6);
            header.bits = two(info_, 10);
            return true;
        }
        const auto wide = static_cast<std::int32_t>(four(info_, 4));
        const auto high = static_cast<std::int32_t>(four(info_, 8));
        if (wide <= 0) return reason_.refuse("no pixels");
        header.wide = static_cast<std::uint32_t>(wide);
        header.isTopDown = high < 0;
        header.high = static_cast<std::uint32_t>(high < 0 ? -std::int64_t{high} : high);
        header.bits = two(info_, 14);
        return true;
    }

    bool readPacking(BmpHeader& header) const {
        const unsigned bits = header.bits;
        const bool isIndexed = bits == 1 || bits == 2 || bits == 4 || bits == 8;
        if (!isIndexed && bits != 16 && bits != 24 && bits != 32)
            return reason_.refuse("an unknown number of bits");
        switch (isCore() ? 0 : four(info_, 16)) {
        case 0:
            header.packing = BmpPacking::None;
            return true;
        case 1:
            header.packing = BmpPacking::RLE8;
            return bits == 8 || reason_.refuse("packed pixels of another size");
        case 2:
            header.packing = BmpPacking::RLE4;
            return bits == 4 || reason_.refuse("packed pixels of another size");
        case 3:  // in an OS/2 header, fax coding
        case 6:
            header.packing = BmpPacking::Masks;
            return ((bits == 16 || bits == 32) && !isOs2()) ||
                   reason_.refuse("an unknown compression");
        case 4:
            header.packing = BmpPacking::RLE24;
            return (bits == 24 && isOs2()) || reason_.refuse("an unknown compression");
        default:
            return reason_.refuse("an unknown compression");
        }
    }

    // The masks stand behind a header of 40 bytes, and in longer ones.
    bool readMasks(BmpHeader& header) {
        const bool hasMasks = header.packing == BmpPacking::Masks;
        std::array<std::uint32_t, 4> bits{};
        if (hasMasks) {
            const bool hasAlpha =
                size_ >= kHeaderWithAlphaMask || (size_ == kInfoHeader && four(info_, 16) == 6);
            for (std::size_t i = 0; i < (hasAlpha ? 4u : 3u); ++i)
                bits[i] = four(file_, kFileHeader + kInfoHeader + 4 * i);
            if (size_ == kInfoHeader) behindHeader_ = hasAlpha ? 16 : 12;
            header.packing = BmpPacking::None;
        } else if (header.bits == 16) {
            bits = {0x7c00, 0x3e0, 0x1f, 0};
        } else {
            bits = {0xff0000, 0xff00, 0xff, 0};
        }
        for (std::size_t i = 0; i < 4; ++i) {
            const auto mask = BmpMask::of(bits[i]);
            if (!mask) return reason_.refuse("a mask of scattered bits");
            header.masks[i] = *mask;
        }
        const bool hasColour =
            !header.masks[0].isEmpty() || !header.masks[1].isEmpty() || !header.masks[2].isEmpty();
        return hasColour || reason_.refuse("no masks of colours");
    }

    bool readPalette(BmpHeader& header) {
        // Pixels that name no colour are black.
        header.palette.fill({0, 0, 0, 255});
        const std::size_t begin = kFileHeader + size_ + behindHeader_;
        const std::size_t entry = isCore() ? 3 : 4;
        std::size_t count = isCore() ? 0 : four(info_, 32);
        if (header.bits <= 8) {
            const std::size_t all = std::size_t{1} << header.bits;
            if (count == 0 || count > all) count = all;
            // Some files have fewer colours than they say, and begin with the pixels there.
            const std::size_t pixels = four(file_, 10);
            if (pixels > begin) count = std::min(count, (pixels - begin) / entry);
            for (std::size_t i = 0; i < count && begin + entry * (i + 1) <= file_.size(); ++i) {
                const Bytes colour = file_.subspan(begin + entry * i, 3);
                header.palette[i] = {colour[2], colour[1], colour[0], 255};
            }
        }
        behindHeader_ += std::min(count, file_.size()) * entry;
        return true;
    }

    bool findPixels(BmpHeader& header) const {
        std::size_t begin = four(file_, 10);
        if (begin == 0) begin = kFileHeader + size_ + behindHeader_;
        if (begin >= file_.size()) return reason_.refuse("no pixels");
        header.pixels = file_.subspan(begin);
        if (size_ == kHeader5 && four(info_, 56) == kProfileEmbedded) {
            const std::size_t at = std::size_t{kFileHeader} + four(info_, 112);
            const std::size_t size = four(info_, 116);
            if (at <= file_.size() && size <= file_.size() - at)
                header.profile = file_.subspan(at, size);
        }
        return true;
    }

    Bytes file_;
    Reason& reason_;
    Bytes info_;
    std::size_t size_ = 0;
    std::size_t behindHeader_ = 0;  // masks and palette
};

}  // namespace

std::optional<BmpMask> BmpMask::of(std::uint32_t bits) {
    BmpMask mask;
    if (bits == 0) return mask;
    mask.shift_ = static_cast<unsigned>(std::countr_zero(bits));
    mask.maximum_ = bits >> mask.shift_;
    // All ones: adding one carries through.
    if ((std::uint64_t{mask.maximum_} & (std::uint64_t{mask.maximum_} + 1)) != 0)
        return std::nullopt;
    return mask;
}

std::optional<BmpHeader> BmpHeader::read(Bytes file, Reason& reason) {
    BmpHeader header;
    if (!HeaderReader(file, reason).read(header)) return std::nullopt;
    return header;
}

}  // namespace utilia::platform::bitmaps
