#pragma once

#include <cstddef>
#include <span>
#include <string>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Result.h"
#include "Common/Foundation/Value.h"

// Property lists as bytes, in the original platform's binary ("bplist00") and XML forms.
//
// Threads: any.

namespace utilia::platform {

enum class PropertyListFormat { Binary, Xml };

// Largest input, and deepest nesting of arrays and dictionaries, that a reader accepts.
inline constexpr std::size_t kPropertyListMaximumSize = 4u << 20;
inline constexpr std::size_t kPropertyListMaximumDepth = 512;

// Either form, recognised by its first bytes. Fails with CocoaErrorCode::PropertyListReadCorrupt
// for anything that is not one whole property list of the types of Value, for text that is not
// UTF-8 or holds NUL, and beyond the limits above. Never crashes, whatever the bytes are.
UTILIA_EXPORT Result<Value> propertyListFromData(std::span<const std::uint8_t> bytes);

// Fails with CocoaErrorCode::PropertyListWriteInvalid for text that is not UTF-8 or holds NUL,
// dates that are not finite, and what would be beyond the limits of a reader. The XML form cuts
// dates to whole seconds and sorts dictionary keys; it cannot hold control characters, nor dates
// outside the years 1 to 9999.
UTILIA_EXPORT Result<Data> dataFromPropertyList(const Value& value, PropertyListFormat format);

}  // namespace utilia::platform
