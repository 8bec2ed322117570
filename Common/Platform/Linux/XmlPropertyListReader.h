#pragma once

#include <cstdint>
#include <span>

#include "Common/Foundation/Result.h"
#include "Common/Foundation/Value.h"

namespace utilia::platform {

// The Value that an XML property list of at most kPropertyListMaximumSize bytes (UTF-8) stands for.
// Fails with CocoaErrorCode::PropertyListReadCorrupt; the description says what is wrong and in
// which line.
//
// Strict where a mistake would change a value: elements must match, a dictionary alternates keys
// and values, numbers must fit, dates must exist. Comments and CDATA are read; a document type with
// declarations of its own is refused, so that there are no entities but the five of XML and
// character references.
Result<Value> readXmlPropertyList(std::span<const std::uint8_t> bytes);

}  // namespace utilia::platform
