#include "Common/Platform/Linux/Modules/Export/ExifOrientation.h"

#include "Common/Platform/Linux/Modules/Export/ExportBitmaps.h"

namespace utilia::platform::bitmaps {
namespace {

constexpr unsigned kOrientationTag = 274;
constexpr unsigned kShort = 3;

// Numbers in the byte order that the segment has chosen; those beyond its end are 0.
struct Numbers {
    std::span<const std::uint8_t> bytes;
    bool isBigEndian;

    unsigned byte(std::size_t at) const { return at < bytes.size() ? bytes[at] : 0; }
    unsigned two(std::size_t at) const {
        return isBigEndian ? byte(at) << 8 | byte(at + 1) : byte(at + 1) << 8 | byte(at);
    }
    std::size_t four(std::size_t at) const {
        return isBigEndian ? std::size_t{two(at)} << 16 | two(at + 2)
                           : std::size_t{two(at + 2)} << 16 | two(at);
    }
};

}  // namespace

std::optional<unsigned> exifOrientation(std::span<const std::uint8_t> segment) {
    if (!beginsWith(segment.data(), segment.size(), "Exif\0\0", 6)) return std::nullopt;
    const auto tiff = segment.subspan(6);
    const bool isBigEndian = beginsWith(tiff.data(), tiff.size(), "MM\0*", 4);
    if (!isBigEndian && !beginsWith(tiff.data(), tiff.size(), "II*\0", 4)) return std::nullopt;
    const Numbers numbers{tiff, isBigEndian};
    const std::size_t directory = numbers.four(4);
    const unsigned entries = numbers.two(directory);
    for (unsigned i = 0; i < entries; ++i) {
        const std::size_t entry = directory + 2 + std::size_t{12} * i;
        if (entry + 12 > tiff.size()) break;
        if (numbers.two(entry) != kOrientationTag) continue;
        if (numbers.two(entry + 2) != kShort || numbers.four(entry + 4) != 1) return std::nullopt;
        const unsigned orientation = numbers.two(entry + 8);
        if (orientation < 1 || orientation > 8) return std::nullopt;
        return orientation;
    }
    return std::nullopt;
}

}  // namespace utilia::platform::bitmaps
