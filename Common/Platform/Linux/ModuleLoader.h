#pragma once

#include <string_view>

#include "Common/Foundation/Result.h"

namespace utilia::platform {

// Opens UtiliaCommon.framework/Modules/NAME.so on the first ask and answers the address of `symbol` in it. A module
// stays loaded; a failed opening is remembered and answered again. Fails with UtiliaErrorCode::Unavailable.
//
// Threads: any.
Result<void*> moduleSymbol(std::string_view name, const char* symbol);

}  // namespace utilia::platform
