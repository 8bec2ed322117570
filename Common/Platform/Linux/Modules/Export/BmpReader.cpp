#include <algorithm>
#include <cstring>

#include "Common/Platform/Linux/Modules/Export/BmpHeader.h"

// Reading BMP: rows of packed or plain pixels, mostly from the bottom. Pixels that a run-length
// coded file skips are transparent.

namespace utilia::platform::bitmaps {
namespace {

// A run of 255 pixels is two bytes.
constexpr std::uint64_t kPixelsPerPackedByte = 128;

struct Rows {
    const BmpHeader& header;
    std::uint8_t* rgba;

    std::uint8_t* row(std::size_t stored) const {
        const std::size_t y = header.isTopDown ? stored : header.high - 1 - stored;
        return rgba + y * header.wide * 4;
    }
};

void convertIndices(const BmpHeader& header, const std::uint8_t* from, std::uint8_t* to) {
    const unsigned bits = header.bits;
    for (std::size_t x = 0; x < header.wide; ++x, to += 4) {
        const std::size_t bit = x * bits;
        const unsigned index = from[bit / 8] >> (8 - bits - bit % 8) & ((1u << bits) - 1);
        std::memcpy(to, header.palette[index].data(), 4);
    }
}

void convertMasked(const BmpHeader& header, const std::uint8_t* from, std::uint8_t* to) {
    const std::size_t bytes = header.bits / 8;
    for (std::size_t x = 0; x < header.wide; ++x, from += bytes, to += 4) {
        std::uint32_t pixel = 0;
        for (std::size_t i = bytes; i-- > 0;) pixel = pixel << 8 | from[i];
        for (std::size_t channel = 0; channel < 4; ++channel) {
            const BmpMask& mask = header.masks[channel];
            to[channel] = mask.isEmpty() ? static_cast<std::uint8_t>(channel == 3 ? 255 : 0)
                                         : mask.valueIn(pixel);
        }
    }
}

// Files that leave the alpha bits of all pixels empty mean none.
void dropEmptyAlpha(const BmpHeader& header, std::uint8_t* rgba) {
    const std::size_t count = std::size_t{header.wide} * header.high;
    for (std::size_t i = 0; i < count; ++i) {
        if (rgba[4 * i + 3] != 0) return;
    }
    for (std::size_t i = 0; i < count; ++i) rgba[4 * i + 3] = 255;
}

std::uint64_t rowBytes(const BmpHeader& header) {
    return (std::uint64_t{header.wide} * header.bits + 31) / 32 * 4;
}

bool readPlain(const Rows& rows, Reason& reason) {
    const BmpHeader& header = rows.header;
    const std::uint64_t bytes = rowBytes(header);
    const std::uint64_t padding = bytes - (std::uint64_t{header.wide} * header.bits + 7) / 8;
    // The padding of the last row may be missing.
    if (header.pixels.size() + padding < bytes * header.high)
        return reason.refuse("the file ends too early");
    for (std::size_t stored = 0; stored < header.high; ++stored) {
        const std::uint8_t* const from = header.pixels.data() + stored * bytes;
        if (header.bits <= 8) {
            convertIndices(header, from, rows.row(stored));
        } else {
            convertMasked(header, from, rows.row(stored));
        }
    }
    if (!header.masks[3].isEmpty() && header.bits > 8) dropEmptyAlpha(header, rows.rgba);
    return true;
}

// Undoes the run-length coding of 4, 8 and 24 bits.
class RunReader final {
public:
    explicit RunReader(const Rows& rows) : rows_(rows), left_(rows.header.pixels) {}

    bool read(Reason& reason) {
        while (y_ < rows_.header.high) {
            if (left_.size() < 2) {
                // Some writers leave the end of the last row out.
                const bool isComplete = y_ + 1 == rows_.header.high && x_ >= rows_.header.wide;
                return isComplete || reason.refuse("the file ends too early");
            }
            const unsigned first = left_[0], second = left_[1];
            const bool isRun = first != 0;
            left_ = left_.subspan(isRun && rows_.header.bits == 24 ? 1 : 2);
            if (isRun) {
                if (!repeat(first, second)) return reason.refuse("the file ends too early");
                continue;
            }
            if (second == 1) return true;
            if (!escape(second)) return reason.refuse("the file ends too early");
        }
        return true;
    }

private:
    void put(const std::uint8_t* colour) {
        if (x_ < rows_.header.wide) std::memcpy(rows_.row(y_) + 4 * x_, colour, 4);
        ++x_;
    }
    void putIndex(unsigned index) { put(rows_.header.palette[index].data()); }
    void putBlueGreenRed(const std::uint8_t* from) {
        const std::uint8_t colour[4] = {from[2], from[1], from[0], 255};
        put(colour);
    }

    bool repeat(unsigned count, unsigned value) {
        if (rows_.header.bits == 24) {
            if (left_.size() < 3) return false;
            for (unsigned i = 0; i < count; ++i) putBlueGreenRed(left_.data());
            left_ = left_.subspan(3);
            return true;
        }
        for (unsigned i = 0; i < count; ++i)
            putIndex(rows_.header.bits == 8 ? value : nibble(value, i));
        return true;
    }

    static unsigned nibble(unsigned value, unsigned i) { return i % 2 ? value & 15 : value >> 4; }

    bool escape(unsigned code) {
        if (code == 0) {
            x_ = 0;
            ++y_;
            return true;
        }
        if (code == 2) {
            if (left_.size() < 2) return false;
            x_ += left_[0];
            y_ += left_[1];
            left_ = left_.subspan(2);
            return true;
        }
        const unsigned bits = rows_.header.bits;
        const std::size_t bytes = (std::size_t{code} * bits + 7) / 8;
        if (left_.size() < bytes) return false;
        for (unsigned i = 0; i < code; ++i) {
            if (bits == 24)
                putBlueGreenRed(left_.data() + std::size_t{3} * i);
            else
                putIndex(bits == 8 ? left_[i] : nibble(left_[i / 2], i));
        }
        left_ = left_.subspan(std::min(left_.size(), bytes + bytes % 2));
        return true;
    }

    const Rows& rows_;
    Bytes left_;
    std::size_t x_ = 0;
    std::size_t y_ = 0;  // as stored
};

}  // namespace

bool decodeBmp(Bytes bytes, Target& target) {
    Reason& reason = target.reason();
    const auto header = BmpHeader::read(bytes, reason);
    if (!header) return false;
    const bool isPacked = header->packing != BmpPacking::None;
    if (!target.accepts(header->wide, header->high, isPacked ? kPixelsPerPackedByte : 8))
        return false;
    if (!isPacked && header->pixels.size() < rowBytes(*header) * (header->high - 1))
        return reason.refuse("the file ends too early");
    if (!target.takeProfile(header->profile)) return false;
    std::uint8_t* const rgba = target.begin(header->wide, header->high);
    if (!rgba) return false;
    const Rows rows{*header, rgba};
    if (!isPacked) return readPlain(rows, reason);
    std::memset(rgba, 0, std::size_t{header->wide} * header->high * 4);
    return RunReader(rows).read(reason);
}

}  // namespace utilia::platform::bitmaps
