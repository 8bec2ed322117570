#pragma once

#include "Common/Foundation/Result.h"
#include "Common/Foundation/Value.h"

namespace utilia::platform {

// The XML form of a value that checkPropertyList() accepts, byte for byte as the original platform
// lays it out. Fails with CocoaErrorCode::PropertyListWriteInvalid for characters that XML has no
// way to write, and for dates outside the years 1 to 9999.
Result<Data> writeXmlPropertyList(const Value& value);

}  // namespace utilia::platform
