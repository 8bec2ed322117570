#include "Common/Platform/Linux/BinaryPropertyListReader.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Common/Foundation/Unicode.h"
#include "Common/Platform/Linux/PropertyListRules.h"
#include "Common/Platform/PropertyListSerialization.h"

// The file is a table of objects that refer to one another by number. Nothing in it is believed:
//
// - every offset and length is compared with the object area, which ends where the offset table
//   begins, and every reference with the number of objects;
// - a cycle is a nesting without end, so the depth limit catches it on the first path that is
//   walked;
// - objects that are shared again and again unfold to more than the file; the cost limit ends that,
//   and is charged for a container's children before room is made for them.

namespace utilia::platform {
namespace {

constexpr std::size_t kTrailerSize = 32;
// As many windows as one for each of these parts of the file, but not fewer than that many, cost
// about as much as the whole file does.
constexpr std::size_t kPartForEachWindow = 4096;
constexpr std::size_t kFewWindows = 32;

// The bytes of the file: all of them, or some windows on them that move, until a value turns out to
// be so large that all of them are wanted after all.
class Bytes final {
public:
    explicit Bytes(std::span<const std::uint8_t> all)
        : size_(all.size()), windows_{{{0, all}, {}, {}}} {}
    Bytes(std::size_t size, const BinaryPropertyListFetch& fetch) : size_(size), fetch_(&fetch) {}
    Bytes(const Bytes&) = delete;
    Bytes& operator=(const Bytes&) = delete;

    std::size_t size() const { return size_; }

    // `count` bytes that lie inside the file, until the next call; null when they cannot be had.
    const std::uint8_t* at(std::size_t begin, std::size_t count) {
        for (const Window& window : windows_) {
            if (begin >= window.begin && begin - window.begin <= window.bytes.size() &&
                count <= window.bytes.size() - (begin - window.begin)) {
                return window.bytes.data() + (begin - window.begin);
            }
        }
        return fetch_ ? move(begin, count) : nullptr;
    }

private:
    struct Window {
        std::size_t begin = 0;
        std::span<const std::uint8_t> bytes;
    };

    const std::uint8_t* move(std::size_t begin, std::size_t count) {
        if (count > kBinaryPropertyListWindow || count > size_ || begin > size_ - count)
            return nullptr;
        if (++moves_ > std::max(kFewWindows, size_ / kPartForEachWindow))
            return fetchAll() ? whole_.data() + begin : nullptr;
        const std::size_t length = std::min(kBinaryPropertyListWindow, size_);
        const std::size_t first = std::min(begin, size_ - length);
        const std::span<std::uint8_t> room(rooms_[next_].data(), length);
        Window& window = windows_[next_];
        next_ = (next_ + 1) % windows_.size();
        window.bytes = {};
        if (!(*fetch_)(first, room)) return nullptr;
        window = {first, room};
        return room.data() + (begin - first);
    }

    bool fetchAll() {
        const auto* const fetch = std::exchange(fetch_, nullptr);
        whole_.resize(size_);
        const bool isFetched = (*fetch)(0, whole_);
        windows_ = {};
        if (isFetched) windows_[0] = {0, whole_};
        return isFetched;
    }

    const std::size_t size_;
    const BinaryPropertyListFetch* fetch_ = nullptr;  // null when there is no more to fetch
    std::size_t moves_ = 0;
    std::vector<std::uint8_t> whole_;
    // The offset table, the dictionary and its keys lie in three places.
    std::array<Window, 3> windows_;
    std::array<std::array<std::uint8_t, kBinaryPropertyListWindow>, 3> rooms_;
    std::size_t next_ = 0;
};

class Reader final {
public:
    explicit Reader(Bytes& bytes) : bytes_(bytes) {}

    Result<Value> read() {
        std::optional<Value> top;
        if (readTrailer()) top = object(top_, 0);
        if (!top) return corrupt();
        return *std::move(top);
    }

    Result<std::optional<Value>> readKey(std::string_view key) {
        std::optional<Value> found;
        if (!readTrailer() || !findKey(key, found)) return corrupt();
        // A number that was not had may have become the answer.
        if (isOutOfReach_) {
            wrong_ = kOutOfReach;
            return corrupt();
        }
        return found;
    }

private:
    Error corrupt() const {
        return Error::cocoa(CocoaErrorCode::PropertyListReadCorrupt,
                            std::string("binary property list: ") + wrong_);
    }

    bool readTrailer() {
        if (bytes_.size() < kBinaryPropertyListMagic.size() + kTrailerSize)
            return fail("cut short");
        const std::uint8_t* const magic = bytes_.at(0, kBinaryPropertyListMagic.size());
        if (!magic || std::memcmp(magic, kBinaryPropertyListMagic.data(),
                                  kBinaryPropertyListMagic.size()) != 0) {
            return fail("unknown header");
        }
        const std::size_t trailer = bytes_.size() - kTrailerSize;
        offsetSize_ = number(trailer + 6, 1);
        referenceSize_ = number(trailer + 7, 1);
        count_ = number(trailer + 8, 8);
        top_ = number(trailer + 16, 8);
        table_ = number(trailer + 24, 8);
        if (offsetSize_ < 1 || offsetSize_ > 8 || referenceSize_ < 1 || referenceSize_ > 8) {
            return fail("impossible sizes in the trailer");
        }
        if (table_ < kBinaryPropertyListMagic.size() || table_ > trailer)
            return fail("the offset table is outside");
        if (count_ == 0 || count_ > (trailer - table_) / offsetSize_)
            return fail("the offset table is cut short");
        if (top_ >= count_) return fail("the top object does not exist");
        return true;
    }

    std::optional<Value> object(std::uint64_t index, std::size_t depth) {
        if (!spend(kPropertyListNodeCost)) return std::nullopt;
        const std::uint64_t offset = number(table_ + index * offsetSize_, offsetSize_);
        if (offset < kBinaryPropertyListMagic.size() || offset >= table_)
            return refuse("an object is outside");
        const unsigned marker = markerAt(offset);
        const std::size_t body = offset + 1;
        switch (marker >> 4) {
        case 0x0:
            if (marker == 0x08) return Value(false);
            if (marker == 0x09) return Value(true);
            break;
        case 0x1:
            return integer(body, marker & 0x0F);
        case 0x2:
            return real(body, marker & 0x0F);
        case 0x3:
            if (marker == 0x33) return date(body);
            break;
        case 0x4:
            return data(offset);
        case 0x5:
        case 0x6:
            if (auto string = text(offset)) return Value(*std::move(string));
            return std::nullopt;
        case 0xA:
            return array(offset, depth);
        case 0xD:
            return dictionary(offset, depth);
        default:
            break;
        }
        return refuse("an object of an unknown type");
    }

    std::optional<Value> integer(std::size_t body, unsigned power) {
        if (power > 4) return refuse("an integer of an unknown size");
        const std::size_t size = std::size_t{1} << power;
        if (!inside(body, size)) return std::nullopt;
        if (size < 8) return Value(static_cast<std::int64_t>(number(body, size)));
        if (size == 8) return Value(static_cast<std::int64_t>(number(body, 8)));
        const std::uint64_t high = number(body, 8);
        const std::uint64_t low = number(body + 8, 8);
        if (high == 0) return Value(low);
        if (high == ~std::uint64_t{0} && (low >> 63) != 0)
            return Value(static_cast<std::int64_t>(low));
        return refuse("an integer beyond 64 bits");
    }

    std::optional<Value> real(std::size_t body, unsigned power) {
        if (power == 2 && inside(body, 4)) {
            return Value(static_cast<double>(
                std::bit_cast<float>(static_cast<std::uint32_t>(number(body, 4)))));
        }
        if (power == 3 && inside(body, 8)) return Value(std::bit_cast<double>(number(body, 8)));
        return refuse("a real of an unknown size");
    }

    std::optional<Value> date(std::size_t body) {
        if (!inside(body, 8)) return std::nullopt;
        const double seconds = std::bit_cast<double>(number(body, 8));
        if (!std::isfinite(seconds)) return refuse("a date that is not finite");
        return Value(Date{seconds});
    }

    std::optional<Value> data(std::size_t offset) {
        const auto items = itemsAt(offset, 1);
        if (!items || !spend(items->count)) return std::nullopt;
        const std::uint8_t* const begin = bytes_.at(items->body, items->count);
        if (!begin) return refuse(kOutOfReach);
        return Value(Data(begin, begin + items->count));
    }

    std::optional<std::string> text(std::size_t offset) {
        const bool wide = markerAt(offset) >> 4 == 0x6;
        const auto items = itemsAt(offset, wide ? 2 : 1);
        if (!items) return std::nullopt;
        if (!wide) {
            if (!spend(items->count)) return std::nullopt;
            const std::uint8_t* const begin = bytes_.at(items->body, items->count);
            if (!begin) return refuse(kOutOfReach);
            std::string ascii(reinterpret_cast<const char*>(begin), items->count);
            for (const char c : ascii) {
                if (static_cast<signed char>(c) <= 0) return refuse("text with NUL or not ASCII");
            }
            return ascii;
        }
        const std::uint8_t* const begin = bytes_.at(items->body, 2 * items->count);
        if (!begin) return refuse(kOutOfReach);
        std::u16string units(items->count, u'\0');
        for (std::size_t i = 0; i < items->count; ++i) {
            units[i] = static_cast<char16_t>(begin[2 * i] << 8 | begin[2 * i + 1]);
        }
        if (!isWellFormed(units)) return refuse("text with NUL or half a surrogate pair");
        std::string converted = utf8FromUtf16(units);
        if (!spend(converted.size())) return std::nullopt;
        return converted;
    }

    static bool isWellFormed(std::u16string_view units) {
        for (std::size_t i = 0; i < units.size(); ++i) {
            const char16_t unit = units[i];
            if (unit == 0 || (unit >= 0xDC00 && unit <= 0xDFFF)) return false;
            if (unit < 0xD800 || unit > 0xDBFF) continue;
            if (++i == units.size() || units[i] < 0xDC00 || units[i] > 0xDFFF) return false;
        }
        return true;
    }

    std::optional<Value> array(std::size_t offset, std::size_t depth) {
        const auto items = containerAt(offset, depth, 1);
        if (!items) return std::nullopt;
        Array elements;
        elements.reserve(items->count);
        for (std::size_t i = 0; i < items->count; ++i) {
            const auto child = reference(items->body, i);
            auto element = child ? object(*child, depth + 1) : std::nullopt;
            if (!element) return std::nullopt;
            elements.append(*std::move(element));
        }
        return Value(std::move(elements));
    }

    std::optional<Value> dictionary(std::size_t offset, std::size_t depth) {
        const auto items = containerAt(offset, depth, 2);
        if (!items) return std::nullopt;
        Dictionary entries;
        entries.reserve(items->count);
        for (std::size_t i = 0; i < items->count; ++i) {
            const auto keyIndex = reference(items->body, i);
            const auto key = keyIndex ? keyText(*keyIndex) : std::nullopt;
            if (!key) return std::nullopt;
            const auto child = reference(items->body, items->count + i);
            auto element = child ? object(*child, depth + 1) : std::nullopt;
            if (!element) return std::nullopt;
            entries.set(*key, *std::move(element));
        }
        return Value(std::move(entries));
    }

    bool findKey(std::string_view key, std::optional<Value>& found) {
        const std::uint64_t offset = number(table_ + top_ * offsetSize_, offsetSize_);
        if (offset < kBinaryPropertyListMagic.size() || offset >= table_)
            return fail("an object is outside");
        if (markerAt(offset) >> 4 != 0xD) return fail("no dictionary");
        const auto items = containerAt(offset, 0, 2);
        if (!items) return false;
        std::optional<std::size_t> place;
        for (std::size_t i = 0; i < items->count; ++i) {
            const auto keyIndex = reference(items->body, i);
            const auto candidate = keyIndex ? keyText(*keyIndex) : std::nullopt;
            if (!candidate) return false;
            // Of a key that stands twice the last value counts, as for the whole list.
            if (*candidate == key) place = i;
        }
        if (!place) return true;
        const auto child = reference(items->body, items->count + *place);
        if (!child) return false;
        found = object(*child, 1);
        return found.has_value();
    }

    std::optional<std::string> keyText(std::uint64_t index) {
        const std::uint64_t offset = number(table_ + index * offsetSize_, offsetSize_);
        if (offset < kBinaryPropertyListMagic.size() || offset >= table_)
            return refuse("an object is outside");
        const unsigned type = markerAt(offset) >> 4;
        if (type != 0x5 && type != 0x6) return refuse("a dictionary key that is not text");
        return text(offset);
    }

    struct Items {
        std::size_t body = 0;
        std::size_t count = 0;
    };

    // The items of a container, with the cost of all of them paid and one level of nesting taken.
    std::optional<Items> containerAt(std::size_t offset, std::size_t depth,
                                     std::size_t referencesPerItem) {
        if (depth == kPropertyListMaximumDepth) return refuse("nested too deep, or a cycle");
        const auto items = itemsAt(offset, referencesPerItem * referenceSize_);
        // The children pay for themselves as they are read; this only shows that they can, before
        // room is made.
        if (items && items->count > left_ / kPropertyListNodeCost)
            return refuse("too much shared content");
        // A key has no node of its own.
        if (items && referencesPerItem == 2 && !spend(items->count * kPropertyListNodeCost))
            return std::nullopt;
        return items;
    }

    // Where the items of text, data or a container begin, and how many there are: in the marker, or
    // behind it as an integer object. All of them lie inside the object area.
    std::optional<Items> itemsAt(std::size_t offset, std::size_t itemSize) {
        Items items{offset + 1, markerAt(offset) & 0x0Fu};
        if (items.count == 0x0F) {
            if (!inside(items.body, 1)) return std::nullopt;
            const unsigned marker = markerAt(items.body);
            if (marker >> 4 != 0x1 || (marker & 0x0F) > 3)
                return refuse("a length that is not an integer");
            const std::size_t size = std::size_t{1} << (marker & 0x0F);
            if (!inside(items.body + 1, size)) return std::nullopt;
            items.count = number(items.body + 1, size);
            items.body += 1 + size;
        }
        if (items.count > (table_ - items.body) / itemSize)
            return refuse("an object is longer than the file");
        return items;
    }

    std::optional<std::uint64_t> reference(std::size_t body, std::size_t index) {
        const std::uint64_t target = number(body + index * referenceSize_, referenceSize_);
        if (target >= count_) return refuse("a reference to an object that does not exist");
        return target;
    }

    bool inside(std::size_t begin, std::size_t size) {
        return (begin <= table_ && size <= table_ - begin) ||
               fail("an object is longer than the file");
    }

    // Of an unknown type, when it cannot be had.
    unsigned markerAt(std::size_t offset) {
        const std::uint8_t* const marker = bytes_.at(offset, 1);
        return marker ? *marker : 0x70;
    }

    // Big-endian; the caller has shown that the bytes are there. The largest number, which is out
    // of every bound, when they cannot be had.
    std::uint64_t number(std::size_t begin, std::size_t size) {
        const std::uint8_t* const digits = bytes_.at(begin, size);
        if (!digits) {
            isOutOfReach_ = true;
            return ~std::uint64_t{0};
        }
        std::uint64_t result = 0;
        for (std::size_t i = 0; i < size; ++i) result = result << 8 | digits[i];
        return result;
    }

    bool spend(std::size_t cost) {
        if (cost > left_) return fail("too much shared content");
        left_ -= cost;
        return true;
    }

    std::nullopt_t refuse(const char* why) {
        fail(why);
        return std::nullopt;
    }

    bool fail(const char* why) {
        wrong_ = why;
        return false;
    }

    static constexpr const char* kOutOfReach = "a part of it cannot be had";

    Bytes& bytes_;
    bool isOutOfReach_ = false;
    std::size_t offsetSize_ = 0;
    std::size_t referenceSize_ = 0;
    std::uint64_t count_ = 0;
    std::uint64_t top_ = 0;
    std::uint64_t table_ = 0;
    std::size_t left_ = kPropertyListMaximumCost;
    const char* wrong_ = "";
};

}  // namespace

Result<Value> readBinaryPropertyList(std::span<const std::uint8_t> bytes) {
    Bytes all(bytes);
    return Reader(all).read();
}

Result<std::optional<Value>> readBinaryPropertyListKey(std::span<const std::uint8_t> bytes,
                                                       std::string_view key) {
    Bytes all(bytes);
    return Reader(all).readKey(key);
}

Result<std::optional<Value>> readBinaryPropertyListKey(std::size_t size,
                                                       const BinaryPropertyListFetch& fetch,
                                                       std::string_view key) {
    Bytes windows(size, fetch);
    return Reader(windows).readKey(key);
}

}  // namespace utilia::platform
