#pragma once

#include <string>
#include <string_view>

#include "Common/Foundation/Value.h"

namespace utilia {

// What the old copy of a resource is called beside the new one, where a system cannot replace a
// file in one step: "NAME_SECONDS.bak" with the seconds since the reference date and six decimals,
// whatever the locale. The name is that in the file's folder.
std::string resourceBackupName(std::string_view fileName, Date now);

}  // namespace utilia
