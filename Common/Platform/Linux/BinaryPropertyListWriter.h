#pragma once

#include "Common/Foundation/Value.h"

namespace utilia::platform {

// The binary form of a value that checkPropertyList() accepts: objects in the order in which they
// are met, top object first; equal texts, numbers, dates and data once, each boolean anew; the
// smallest sizes that hold the content.
Data writeBinaryPropertyList(const Value& value);

}  // namespace utilia::platform
