#include "Common/Platform/JSONSerialization.h"

#include <cstring>
#include <optional>
#include <string_view>

#include "Common/Foundation/Unicode.h"
#include "Common/Platform/Linux/JSONReader.h"
#include "Common/Platform/Linux/JSONWriter.h"
#include "Common/Platform/Linux/OutOfMemory.h"

namespace utilia::platform {
namespace {

struct Encoding {
    std::size_t unit = 1;  // bytes in a code unit
    bool isBigEndian = false;
    std::size_t mark = 0;  // bytes of the byte order mark
};

// By the mark, or by where the first two characters, which are ASCII in every JSON text, have zero
// bytes.
Encoding encodingOf(std::span<const std::uint8_t> bytes) {
    const auto begins = [&](std::initializer_list<std::uint8_t> with) {
        return bytes.size() >= with.size() &&
               std::memcmp(bytes.data(), with.begin(), with.size()) == 0;
    };
    const auto isZero = [&](std::size_t index) { return index < bytes.size() && !bytes[index]; };
    if (begins({0xEF, 0xBB, 0xBF})) return {1, false, 3};
    if (begins({0x00, 0x00, 0xFE, 0xFF})) return {4, true, 4};
    if (begins({0xFF, 0xFE, 0x00, 0x00})) return {4, false, 4};
    if (begins({0xFE, 0xFF})) return {2, true, 2};
    if (begins({0xFF, 0xFE})) return {2, false, 2};
    if (isZero(0)) return isZero(1) ? Encoding{4, true, 0} : Encoding{2, true, 0};
    if (isZero(1)) return isZero(2) && isZero(3) ? Encoding{4, false, 0} : Encoding{2, false, 0};
    return {};
}

// Empty when the bytes are no well-formed text in that encoding.
std::optional<std::string> utf8From(std::span<const std::uint8_t> bytes, Encoding encoding) {
    if (bytes.size() % encoding.unit != 0) return std::nullopt;
    std::u16string units;
    units.reserve(bytes.size() / 2);
    for (; !bytes.empty(); bytes = bytes.subspan(encoding.unit)) {
        std::uint32_t character = 0;
        for (std::size_t i = 0; i < encoding.unit; ++i)
            character = character << 8 | bytes[encoding.isBigEndian ? i : encoding.unit - 1 - i];
        if (character >= 0x110000 || (encoding.unit == 4 && character >> 11 == 0x1B))
            return std::nullopt;
        if (character >= 0x10000) {
            units += static_cast<char16_t>(0xD800 + ((character - 0x10000) >> 10));
            character = 0xDC00 + ((character - 0x10000) & 0x3FF);
        }
        units += static_cast<char16_t>(character);
    }
    // Lone surrogates do not come back from there as they were.
    std::string text = utf8FromUtf16(units);
    if (utf16FromUtf8(text) != units) return std::nullopt;
    return text;
}

Error unreadable(const char* what) {
    return Error::cocoa(CocoaErrorCode::PropertyListReadCorrupt, what);
}

}  // namespace

Result<Value> jsonObjectFromData(std::span<const std::uint8_t> bytes, JSONNotes* notes) {
    return orOutOfMemory("read", "JSON", [&]() -> Result<Value> {
        if (notes) *notes = {};
        if (bytes.empty()) return unreadable("there is no text");
        if (bytes.size() > kJSONMaximumSize) return unreadable("the text is too large");
        const Encoding encoding = encodingOf(bytes);
        const auto content = bytes.subspan(encoding.mark);
        if (encoding.unit == 1) {
            const std::string_view text(reinterpret_cast<const char*>(content.data()),
                                        content.size());
            return JSONReader(text, notes).read();
        }
        const auto text = utf8From(content, encoding);
        if (!text) {
            return unreadable(encoding.unit == 2 ? "the text is not UTF-16"
                                                 : "the text is not UTF-32");
        }
        return JSONReader(*text, notes).read();
    });
}

Result<Data> dataFromJSONObject(const Value& value, JSONForm form) {
    return orOutOfMemory("write", "JSON", [&]() -> Result<Data> {
        const auto text = JSONWriter(form).write(value);
        if (!text) return text.error();
        return Data(text->begin(), text->end());
    });
}

}  // namespace utilia::platform
