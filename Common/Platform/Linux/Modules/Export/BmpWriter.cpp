#include <array>
#include <vector>

#include "Common/Platform/Linux/Modules/Export/Codec.h"

// Writing BMP: 24 bits a pixel under the header that every reader takes; the header of 124 bytes
// where there is transparency (then 32 bits) or a profile to tell.

namespace utilia::platform::bitmaps {
namespace {

constexpr std::uint32_t kFileHeader = 14;
constexpr std::uint32_t kInfoHeader = 40;
constexpr std::uint32_t kHeader5 = 124;
constexpr std::uint32_t kMasks = 3;
constexpr std::uint32_t kSRGB = 0x73524742;             // "sRGB"
constexpr std::uint32_t kProfileEmbedded = 0x4d424544;  // "MBED"
constexpr std::uint32_t kPixelsPerMetre = 2835;         // a pixel is shown as a point

class HeaderWriter final {
public:
    void two(std::uint32_t value) {
        bytes.push_back(static_cast<std::uint8_t>(value));
        bytes.push_back(static_cast<std::uint8_t>(value >> 8));
    }
    void four(std::uint32_t value) {
        two(value);
        two(value >> 16);
    }
    void zeros(std::size_t count) { bytes.insert(bytes.end(), count, 0); }

    std::vector<std::uint8_t> bytes;
};

std::vector<std::uint8_t> headerOf(const Source& source, std::uint32_t pixelBytes) {
    const bool isOpaque = source.isOpaque();
    const auto profile = static_cast<std::uint32_t>(source.profileOfRGB().size());
    const std::uint32_t size = isOpaque && profile == 0 ? kInfoHeader : kHeader5;
    HeaderWriter header;
    header.bytes = {'B', 'M'};
    header.four(kFileHeader + size + pixelBytes + profile);
    header.four(0);
    header.four(kFileHeader + size);
    header.four(size);
    header.four(source.wide());
    header.four(source.high());
    header.two(1);
    header.two(isOpaque ? 24 : 32);
    header.four(isOpaque ? 0 : kMasks);
    header.four(pixelBytes);
    header.four(kPixelsPerMetre);
    header.four(kPixelsPerMetre);
    header.zeros(8);
    if (size == kInfoHeader) return header.bytes;
    const std::array<std::uint32_t, 4> masks = {0xff0000, 0xff00, 0xff, 0xff000000};
    for (const std::uint32_t mask : masks) header.four(isOpaque ? 0 : mask);
    header.four(profile ? kProfileEmbedded : kSRGB);
    header.zeros(48);
    header.four(4);  // as a photograph
    header.four(profile ? size + pixelBytes : 0);
    header.four(profile);
    header.four(0);
    return header.bytes;
}

}  // namespace

bool encodeBmp(Source& source) {
    const std::size_t pixelBytes = source.isOpaque() ? 3 : 4;
    const std::size_t rowBytes = (source.wide() * pixelBytes + 3) / 4 * 4;
    const std::size_t allBytes = rowBytes * source.high();
    if (allBytes + source.profileOfRGB().size() > 0x7fff'0000)
        return source.reason().refuse("BMP holds at most 2 GiB");
    const auto header = headerOf(source, static_cast<std::uint32_t>(allBytes));
    if (!source.expect(header.size() + allBytes + source.profileOfRGB().size()) ||
        !source.write(header.data(), header.size()))
        return source.reason().refuse("given up");
    std::vector<std::uint8_t> row(rowBytes);
    for (std::size_t stored = 0; stored < source.high(); ++stored) {
        const std::uint8_t* from = source.row(source.high() - 1 - stored);
        std::uint8_t* to = row.data();
        for (std::size_t x = 0; x < source.wide(); ++x, from += 4, to += pixelBytes) {
            to[0] = from[2];
            to[1] = from[1];
            to[2] = from[0];
            if (pixelBytes == 4) to[3] = from[3];
        }
        if (!source.write(row.data(), row.size()) || !source.rowIsDone(stored))
            return source.reason().refuse("given up");
    }
    return source.write(source.profileOfRGB().data(), source.profileOfRGB().size()) ||
           source.reason().refuse("given up");
}

}  // namespace utilia::platform::bitmaps
