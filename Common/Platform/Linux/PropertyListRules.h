#pragma once

#include <cstddef>
#include <string_view>

#include "Common/Foundation/Result.h"
#include "Common/Foundation/Value.h"

// What every property list that is read or written here must keep to, in either form.

namespace utilia::platform {

// A property list may refer to one object from many places, so a small file can stand for a huge
// tree. The tree as it is unfolded is therefore bounded too: each node counts kPropertyListNodeCost
// bytes, text and data their length as well. A file of the largest size that shares nothing stays
// below.
inline constexpr std::size_t kPropertyListNodeCost = 32;
inline constexpr std::size_t kPropertyListMaximumCost = 32u << 20;

// UTF-8 without NUL.
bool isPropertyListText(std::string_view text);

// Whether a value can be stored: text, dates, nesting and unfolded size. The error is
// CocoaErrorCode::PropertyListWriteInvalid and names what is wrong.
Result<void> checkPropertyList(const Value& value);

}  // namespace utilia::platform
