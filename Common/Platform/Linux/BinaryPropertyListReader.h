#pragma once

#include <cstdint>
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

}  // namespace utilia::platform
