#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "Common/Foundation/Result.h"
#include "Common/Foundation/Value.h"

namespace utilia::platform {

inline constexpr std::string_view kBinaryPropertyListMagic = "bplist00";

// The Value that a binary property list of at most kPropertyListMaximumSize bytes stands for. Fails
// with CocoaErrorCode::PropertyListReadCorrupt; the description says what is wrong.
Result<Value> readBinaryPropertyList(std::span<const std::uint8_t> bytes);

}  // namespace utilia::platform
