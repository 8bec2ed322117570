#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "Common/Platform/Linux/Modules/Icons/IconsModule.h"
#include "Common/Platform/Linux/Modules/Icons/TiffFile.h"

namespace utilia::platform::icons {

// UtiliaIconsModule::list. Throws std::bad_alloc.
std::size_t listDirectories(std::span<const std::uint8_t> bytes,
                            std::span<UtiliaIconsDirectory> directories);

// UtiliaIconsModule::decode. Throws std::bad_alloc.
bool decodeDirectory(std::span<const std::uint8_t> bytes, std::uint32_t number,
                     std::span<std::uint8_t> rgba, const UtiliaIconsProfileTaker& profile,
                     Reason reason);

}  // namespace utilia::platform::icons
