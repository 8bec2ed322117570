#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "Common/Platform/Linux/Modules/Icons/IconsModule.h"
#include "Common/Platform/Linux/Modules/Icons/TiffFile.h"

namespace utilia::platform::icons {

// UtiliaIconsModule::encode.
std::uint8_t* encodeBitmaps(std::span<const UtiliaIconsBitmap> bitmaps, std::size_t* size,
                            const UtiliaIconsProgress* progress, Reason reason);

}  // namespace utilia::platform::icons
