#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Result.h"
#include "Common/Foundation/Value.h"

// JSON texts as values, read and written as the original platform does it.
//
// Threads: any.

namespace utilia::platform {

// Largest input in bytes, and deepest nesting of arrays and objects.
inline constexpr std::size_t kJSONMaximumSize = 4u << 20;
inline constexpr std::size_t kJSONMaximumDepth = 512;

// Counted from 1; columns count characters, lines end with a line feed.
struct JSONPosition {
    std::size_t line = 0;
    std::size_t column = 0;

    friend bool operator==(const JSONPosition&, const JSONPosition&) = default;
};

// What a person who wrote the text wants to know beyond its value.
struct JSONNotes {
    struct DuplicateKey {
        std::string key;
        JSONPosition position;  // of the later one
    };

    JSONPosition error;  // where reading stopped; line 0 when it did not, or at no certain place
    std::vector<DuplicateKey> duplicateKeys;
};

// The array or object that the bytes spell, in UTF-8, UTF-16 or UTF-32, with or without a byte
// order mark. Integers beyond 64 bits are read as reals; of two members with one key the last
// counts. Fails with CocoaErrorCode::PropertyListReadCorrupt for everything that the grammar of RFC
// 8259 does not allow, any other top level, text that is ill-formed, reals beyond the range of a
// double, and beyond the limits above; the description begins with line and column. Never crashes,
// whatever the bytes are.
UTILIA_EXPORT Result<Value> jsonObjectFromData(std::span<const std::uint8_t> bytes,
                                               JSONNotes* notes = nullptr);

enum class JSONForm { Compact, PrettyPrinted };

// In UTF-8, members in the dictionary's order, no line feed at the end. Reals are written as the
// shortest text that reads back as them; those with an integral value lose their fraction, so that
// they read back as integers. Fails with CocoaErrorCode::PropertyListWriteInvalid for what JSON
// cannot say: a top level that is neither array nor dictionary, dates, data, infinity,
// not-a-number, text that is not UTF-8, and nesting beyond the limit.
UTILIA_EXPORT Result<Data> dataFromJSONObject(const Value& value, JSONForm form);

}  // namespace utilia::platform
