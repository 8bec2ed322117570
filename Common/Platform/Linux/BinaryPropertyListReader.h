#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string_view>

#include "Common/Foundation/Result.h"
#include "Common/Foundation/Value.h"

namespace utilia::platform {

inline constexpr std::string_view kBinaryPropertyListMagic = "bplist00";

// The Value that a binary property list of at most kPropertyListMaximumSize bytes stands for. Fails
// with CocoaErrorCode::PropertyListReadCorrupt; the description says what is wrong.
Result<Value> readBinaryPropertyList(std::span<const std::uint8_t> bytes);

// The value of one key of the dictionary that the property list is; empty when the dictionary does
// not hold the key. Looks at the keys and at that value alone, so damage elsewhere goes unnoticed;
// what it answers is what the whole list would hold there if it can be read at all. Fails as
// readBinaryPropertyList() does, also for a list that is no dictionary.
Result<std::optional<Value>> readBinaryPropertyListKey(std::span<const std::uint8_t> bytes,
                                                       std::string_view key);

// The same for bytes that are fetched as they are needed, a few hundred at a time and some of them
// more than once; and then all of them, when that has taken as long as fetching all takes. Fails as
// well when `fetch` does, and may fail for a value or key of more than kBinaryPropertyListWindow
// bytes.
using BinaryPropertyListFetch =
    std::function<bool(std::size_t offset, std::span<std::uint8_t> into)>;
inline constexpr std::size_t kBinaryPropertyListWindow = 512;
Result<std::optional<Value>> readBinaryPropertyListKey(std::size_t size,
                                                       const BinaryPropertyListFetch& fetch,
                                                       std::string_view key);

}  // namespace utilia::platform
