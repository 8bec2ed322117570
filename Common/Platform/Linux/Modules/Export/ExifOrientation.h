#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "Common/Platform/Linux/Modules/Orientation.h"

namespace utilia::platform::bitmaps {

// The orientation (tag 274 of the first directory) that an Exif segment, which begins with "Exif"
// and two zeros, tells; empty when it tells none, or is damaged.
std::optional<unsigned> exifOrientation(std::span<const std::uint8_t> segment);

}  // namespace utilia::platform::bitmaps
