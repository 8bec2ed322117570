#include "Common/Platform/Linux/DconfDatabase.h"

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace utilia::platform {
namespace {

constexpr std::string_view kSignature =
    std::endian::native == std::endian::little ? "GVariant" : "raVGtnai";
constexpr std::size_t kHeaderSize = 24;
constexpr std::size_t kItemSize = 24;
constexpr std::size_t kTypeOffset = 14;
constexpr std::size_t kValueOffset = 16;
constexpr char kIsValue = 'v';
constexpr std::uint32_t kNoParent = 0xFFFFFFFF;
constexpr std::uint32_t kBloomWords = 0x07FFFFFF;

template <class Number>
Number numberAt(std::string_view bytes, std::size_t offset) {
    Number number;
    std::memcpy(&number, bytes.data() + offset, sizeof number);
    return number;
}

// The bytes from `begin` to `end`; empty when they are not all there.
std::string_view part(std::string_view bytes, std::size_t begin, std::size_t end) {
    if (begin > end || end > bytes.size()) return {};
    return bytes.substr(begin, end - begin);
}

// The part of the file that the pointer at `offset` of `bytes` stands for.
std::string_view pointed(std::string_view file, std::string_view bytes, std::size_t offset) {
    return part(file, numberAt<std::uint32_t>(bytes, offset),
                numberAt<std::uint32_t>(bytes, offset + 4));
}

class Table final {
public:
    explicit Table(std::string_view file) : file_(file) {
        if (file.size() < kHeaderSize || !file.starts_with(kSignature)) return;
        const std::string_view table = pointed(file, file, 16);
        if (table.size() < 8) return;
        const std::size_t words = numberAt<std::uint32_t>(table, 0) & kBloomWords;
        const std::size_t buckets = numberAt<std::uint32_t>(table, 4);
        const std::size_t begin = 8 + 4 * (words + buckets);
        if (begin < table.size()) items_ = table.substr(begin);
    }

    // What is stored under the key, with its type.
    std::string_view valueOf(std::string_view key) const {
        for (std::size_t i = 0; i < count(); ++i) {
            const std::string_view item = this->item(i);
            if (item[kTypeOffset] == kIsValue && isKey(item, key))
                return pointed(file_, item, kValueOffset);
        }
        return {};
    }

private:
    std::size_t count() const { return items_.size() / kItemSize; }
    std::string_view item(std::size_t index) const {
        return items_.substr(index * kItemSize, kItemSize);
    }

    // Each item has the end of its name, and its parent what comes before.
    bool isKey(std::string_view item, std::string_view key) const {
        for (;;) {
            const std::size_t begin = numberAt<std::uint32_t>(item, 8);
            const std::string_view name =
                part(file_, begin, begin + numberAt<std::uint16_t>(item, 12));
            if (name.empty() || !key.ends_with(name)) return false;
            key.remove_suffix(name.size());
            const auto parent = numberAt<std::uint32_t>(item, 4);
            if (parent == kNoParent) return key.empty();
            if (parent >= count()) return false;
            item = this->item(parent);
        }
    }

    std::string_view file_;
    std::string_view items_;
};

// Values are followed by their type.
constexpr std::string_view kStringEnd = std::string_view("\0\0s", 3);
constexpr std::string_view kBooleanEnd = std::string_view("\0b", 2);

}  // namespace

std::optional<std::string> dconfString(std::string_view bytes, std::string_view key) {
    const std::string_view value = Table(bytes).valueOf(key);
    if (!value.ends_with(kStringEnd)) return std::nullopt;
    return std::string(value.substr(0, value.size() - kStringEnd.size()));
}

std::optional<bool> dconfBoolean(std::string_view bytes, std::string_view key) {
    const std::string_view value = Table(bytes).valueOf(key);
    if (value.size() != 1 + kBooleanEnd.size() || !value.ends_with(kBooleanEnd))
        return std::nullopt;
    return value[0] != 0;
}

}  // namespace utilia::platform
