#include "Common/Platform/Linux/MessageCatalog.h"

#include <algorithm>
#include <cstdint>
#include <string>

#include "Common/Foundation/Unicode.h"

// The compiled form: magic, revision, number of entries, and two tables of (length, offset), one of
// the keys and one of the translations; all numbers have 32 bits in the byte order that the magic
// shows. Texts are followed by a NUL that their length leaves out. The entry of the empty key holds
// the catalogue's own description.

namespace utilia::platform {
namespace {

constexpr std::size_t kHeaderSize = 20;
constexpr std::size_t kTableEntrySize = 8;
constexpr std::uint32_t kMagic = 0x950412de;

Error refused(std::string why) {
    return Error::utilia(UtiliaErrorCode::Refused, "no message catalogue: " + std::move(why));
}

class Reader final {
public:
    explicit Reader(const Data& bytes) : bytes_(bytes) {}

    // Answers whether the magic number is there, in either order.
    bool findByteOrder() {
        if (number(0) == kMagic) return true;
        isBigEndian_ = true;
        return number(0) == kMagic;
    }

    // Only for a place within the bytes.
    std::uint32_t number(std::size_t place) const {
        std::uint32_t value = 0;
        for (std::size_t i = 0; i < 4; ++i) {
            const std::uint32_t byte = bytes_[place + i];
            value |= byte << (isBigEndian_ ? 24 - 8 * i : 8 * i);
        }
        return value;
    }

    bool holdsTable(std::uint64_t place, std::uint64_t entries) const {
        return place + entries * kTableEntrySize <= bytes_.size();
    }

    // The text that a table's entry describes; empty (nothing) when it does not lie in the bytes.
    std::optional<std::string_view> text(std::size_t place) const {
        const std::uint64_t length = number(place);
        const std::uint64_t offset = number(place + 4);
        if (offset + length >= bytes_.size() || bytes_[offset + length] != 0) return std::nullopt;
        return std::string_view(reinterpret_cast<const char*>(bytes_.data()) + offset, length);
    }

private:
    const Data& bytes_;
    bool isBigEndian_ = false;
};

}  // namespace

Result<MessageCatalog> MessageCatalog::parse(Data bytes) {
    MessageCatalog catalog;
    catalog.bytes_ = std::move(bytes);
    Reader reader(catalog.bytes_);
    if (catalog.bytes_.size() < kHeaderSize) return refused("it is too short");
    if (!reader.findByteOrder()) return refused("it does not begin like one");
    if (reader.number(4) >> 16 > 1) return refused("its format is newer");
    const std::uint32_t count = reader.number(8);
    const std::uint32_t keys = reader.number(12);
    const std::uint32_t texts = reader.number(16);
    if (!reader.holdsTable(keys, count) || !reader.holdsTable(texts, count)) {
        return refused("its tables do not lie in it");
    }
    catalog.entries_.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        const auto key = reader.text(keys + i * kTableEntrySize);
        const auto text = reader.text(texts + i * kTableEntrySize);
        if (!key || !text) return refused("entry " + std::to_string(i) + " does not lie in it");
        if (!isValidUtf8(*key) || !isValidUtf8(*text)) {
            return refused("entry " + std::to_string(i) + " is not UTF-8");
        }
        const bool isPlural = key->find('\0') != std::string_view::npos;
        if (key->empty() || text->empty() || isPlural) continue;
        catalog.entries_.emplace_back(*key, *text);
    }
    std::stable_sort(catalog.entries_.begin(), catalog.entries_.end(),
                     [](const auto& left, const auto& right) { return left.first < right.first; });
    return catalog;
}

std::optional<std::string_view> MessageCatalog::find(std::string_view key) const {
    const auto found = std::lower_bound(
        entries_.begin(), entries_.end(), key,
        [](const auto& entry, std::string_view wanted) { return entry.first < wanted; });
    if (found == entries_.end() || found->first != key) return std::nullopt;
    return found->second;
}

}  // namespace utilia::platform
