#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "Common/Foundation/Result.h"

namespace utilia::platform {

// Opens UtiliaCommon.framework/Modules/NAME.so on the first ask and answers the address of `symbol` in it. A module
// stays loaded; a failed opening is remembered and answered again. Fails with UtiliaErrorCode::Unavailable.
//
// Threads: any.
Result<void*> moduleSymbol(std::string_view name, const char* symbol);

// The table of functions that a module exports as `symbol`: a structure that begins with its
// version, which is all that is read of another version's. Fails with UtiliaErrorCode::Unavailable.
template <class Table>
Result<const Table*> moduleTable(std::string_view name, const char* symbol, std::uint32_t version) {
    const auto found = moduleSymbol(name, symbol);
    if (!found) return found.error();
    const auto* table = static_cast<const Table*>(*found);
    if (table->version == version) return table;
    return Error::utilia(UtiliaErrorCode::Unavailable,
                         "module " + std::string(name) + ": version " +
                             std::to_string(table->version) + " instead of " +
                             std::to_string(version));
}

}  // namespace utilia::platform
