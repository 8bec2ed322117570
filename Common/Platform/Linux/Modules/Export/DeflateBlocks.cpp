#include "Common/Platform/Linux/Modules/Export/DeflateBlocks.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

// What follows is only as much of a Deflate decoder as tells where its blocks end: symbols are
// looked up in a table by the bits that come next, and an entry says by how many bits to go on, the
// extra bits of a length or distance included. Codes that are longer than the table's index, which
// are rare by their nature, are read bit by bit.

namespace utilia::platform::pdf {
namespace {

constexpr unsigned kLongestCode = 15;
constexpr unsigned kMostSymbols = 288;
constexpr unsigned kEndOfBlock = 256;

class Bits final {
public:
    explicit Bits(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

    // At least 56 bits from `at` on, the next one lowest; zeros behind the end.
    std::uint64_t from(std::size_t at) const {
        const std::size_t byte = at >> 3;
        std::uint64_t word = 0;
        if (byte + sizeof word <= bytes_.size() && std::endian::native == std::endian::little) {
            std::memcpy(&word, bytes_.data() + byte, sizeof word);
        } else {
            for (std::size_t i = 0; i < sizeof word && byte + i < bytes_.size(); ++i)
                word |= std::uint64_t{bytes_[byte + i]} << (8 * i);
        }
        return word >> (at & 7);
    }
    std::size_t size() const { return bytes_.size() * 8; }

private:
    std::span<const std::uint8_t> bytes_;
};

enum class Kind : std::uint8_t { Unknown, Literal, Repeat, End };

struct Symbol {
    Kind kind = Kind::Unknown;
    std::uint8_t bits = 0;  // of the code and of what belongs to it
    std::uint16_t value = 0;
};

// A Huffman code, given by the lengths of its words.
template <unsigned TableBits>
class Code final {
public:
    // `classify` completes a symbol: its kind, and by how many bits it is longer than its code.
    template <class Classify>
    bool build(std::span<const std::uint8_t> lengths, Classify classify) {
        std::array<std::uint16_t, kLongestCode + 2> next{};
        count_ = {};
        for (const std::uint8_t length : lengths) ++count_[length];
        count_[0] = 0;
        unsigned code = 0;
        unsigned place = 0;
        for (unsigned length = 1; length <= kLongestCode; ++length) {
            first_[length] = static_cast<std::uint16_t>(code);
            offset_[length] = static_cast<std::uint16_t>(place);
            next[length] = static_cast<std::uint16_t>(place);
            code += count_[length];
            place += count_[length];
            if (code > (1u << length)) return false;
            code <<= 1;
        }
        table_.fill({});
        for (unsigned value = 0; value < lengths.size(); ++value) {
            const unsigned length = lengths[value];
            if (length == 0) continue;
            const unsigned index = next[length]++;
            Symbol symbol{Kind::Literal, 0, static_cast<std::uint16_t>(value)};
            symbol.bits = static_cast<std::uint8_t>(length + classify(symbol));
            symbols_[index] = symbol;
            if (length > TableBits) continue;
            const unsigned word = first_[length] + (index - offset_[length]);
            for (unsigned i = reversed(word, length); i < table_.size(); i += 1u << length)
                table_[i] = symbol;
        }
        return true;
    }

    Symbol at(std::uint64_t bits) const {
        const Symbol found = table_[bits & (table_.size() - 1)];
        return found.kind == Kind::Unknown ? bitByBit(bits) : found;
    }

private:
    static unsigned reversed(unsigned word, unsigned length) {
        unsigned result = 0;
        for (unsigned i = 0; i < length; ++i) result |= ((word >> i) & 1u) << (length - 1 - i);
        return result;
    }

    Symbol bitByBit(std::uint64_t bits) const {
        unsigned word = 0;
        for (unsigned length = 1; length <= kLongestCode; ++length, bits >>= 1) {
            word = (word << 1) | static_cast<unsigned>(bits & 1);
            if (word < first_[length]) return {};
            const unsigned index = word - first_[length];
            if (index < count_[length]) return symbols_[offset_[length] + index];
        }
        return {};
    }

    std::array<Symbol, 1u << TableBits> table_{};
    std::array<Symbol, kMostSymbols> symbols_{};  // by length, then by value
    std::array<std::uint16_t, kLongestCode + 1> count_{};
    std::array<std::uint16_t, kLongestCode + 1> first_{};
    std::array<std::uint16_t, kLongestCode + 1> offset_{};
};

// The bits that follow the code of a length (symbols 257 to 285) or of a distance.
unsigned extraBitsOfLength(unsigned value) {
    return value < 265 || value == 285 ? 0 : (value - 261) / 4;
}
unsigned extraBitsOfDistance(unsigned value) { return value < 4 ? 0 : value / 2 - 1; }

class Reader final {
public:
    explicit Reader(std::span<const std::uint8_t> deflated) : bits_(deflated) {}

    std::optional<FinalBlock> finalBlock() {
        for (;;) {
            const std::size_t start = at_;
            const unsigned isFinal = take(1);
            const bool isWhole = readBlock(take(2)) && at_ <= bits_.size();
            if (!isWhole) return std::nullopt;
            if (isFinal) return FinalBlock{start, at_};
        }
    }

private:
    unsigned take(unsigned count) {
        const std::uint64_t value = bits_.from(at_) & ((1u << count) - 1);
        at_ += count;
        return static_cast<unsigned>(value);
    }

    bool readBlock(unsigned type) {
        switch (type) {
        case 0:
            return readStored();
        case 1:
            return setFixedCodes() && readSymbols();
        case 2:
            return readCodes() && readSymbols();
        default:
            return false;
        }
    }

    bool readStored() {
        at_ = (at_ + 7) & ~std::size_t{7};
        const unsigned size = take(16);
        if (take(16) != (~size & 0xffffu)) return false;
        at_ += std::size_t{size} * 8;
        return true;
    }

    bool setCodes(std::span<const std::uint8_t> literals, std::span<const std::uint8_t> distances) {
        return literals_.build(literals, [](Symbol& symbol) {
            if (symbol.value < kEndOfBlock) return 0u;
            symbol.kind = symbol.value == kEndOfBlock ? Kind::End : Kind::Repeat;
            return symbol.kind == Kind::End ? 0u : extraBitsOfLength(symbol.value);
        }) && distances_.build(distances, [](Symbol& symbol) {
            return extraBitsOfDistance(symbol.value);
        });
    }

    bool setFixedCodes() {
        std::array<std::uint8_t, kMostSymbols> literals{};
        for (unsigned i = 0; i < literals.size(); ++i)
            literals[i] = i < 144 ? 8 : i < 256 ? 9 : i < 280 ? 7 : 8;
        std::array<std::uint8_t, 30> distances{};
        distances.fill(5);
        return setCodes(literals, distances);
    }

    bool readCodes() {
        constexpr std::array<std::uint8_t, 19> kOrder = {16, 17, 18, 0, 8,  7, 9,  6, 10, 5,
                                                         11, 4,  12, 3, 13, 2, 14, 1, 15};
        const unsigned literals = take(5) + 257;
        const unsigned distances = take(5) + 1;
        const unsigned words = take(4) + 4;
        if (literals > 286 || distances > 30) return false;
        std::array<std::uint8_t, 19> ofLengths{};
        for (unsigned i = 0; i < words; ++i)
            ofLengths[kOrder[i]] = static_cast<std::uint8_t>(take(3));
        if (!lengths_.build(ofLengths, [](Symbol&) { return 0u; })) return false;

        std::array<std::uint8_t, 286 + 30> lengths{};
        for (unsigned i = 0; i < literals + distances;) {
            const Symbol symbol = lengths_.at(bits_.from(at_));
            if (symbol.kind == Kind::Unknown || at_ > bits_.size()) return false;
            at_ += symbol.bits;
            std::uint8_t value = 0;
            unsigned repeat = 1;
            if (symbol.value < 16) {
                value = static_cast<std::uint8_t>(symbol.value);
            } else if (symbol.value == 16) {
                if (i == 0) return false;
                value = lengths[i - 1];
                repeat = 3 + take(2);
            } else {
                repeat = symbol.value == 17 ? 3 + take(3) : 11 + take(7);
            }
            if (repeat > literals + distances - i) return false;
            std::fill_n(lengths.begin() + i, repeat, value);
            i += repeat;
        }
        const std::span<const std::uint8_t> all(lengths);
        return setCodes(all.first(literals), all.subspan(literals, distances));
    }

    // Two literals and the symbol after them take at most 50 bits, which one look brings.
    bool readSymbols() {
        while (at_ <= bits_.size()) {
            std::uint64_t next = bits_.from(at_);
            Symbol symbol = literals_.at(next);
            for (int i = 0; i < 2 && symbol.kind == Kind::Literal; ++i) {
                at_ += symbol.bits;
                next >>= symbol.bits;
                symbol = literals_.at(next);
            }
            at_ += symbol.bits;
            if (symbol.kind == Kind::Literal) continue;
            if (symbol.kind != Kind::Repeat) return symbol.kind == Kind::End;
            const Symbol distance = distances_.at(bits_.from(at_));
            if (distance.kind == Kind::Unknown) return false;
            at_ += distance.bits;
        }
        return false;
    }

    Bits bits_;
    std::size_t at_ = 0;
    Code<7> lengths_;
    Code<11> literals_;
    Code<9> distances_;
};

}  // namespace

std::optional<FinalBlock> findFinalBlock(std::span<const std::uint8_t> deflated) {
    return Reader(deflated).finalBlock();
}

}  // namespace utilia::platform::pdf
