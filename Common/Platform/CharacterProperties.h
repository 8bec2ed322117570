#pragma once

#include "Common/Foundation/Export.h"
#include "Common/Foundation/NumericText.h"

namespace utilia::platform {

// What the operating system knows of Unicode's characters, for Foundation's text functions.
//
// Threads: any.
UTILIA_EXPORT const CharacterProperties& systemCharacterProperties();

}  // namespace utilia::platform
