#pragma once

#include <optional>
#include <string>

#include <sys/types.h>

#include "Common/Foundation/Result.h"

namespace utilia::platform {

// FileManager::replaceItemAtURL() with errors of the system; a mode is the source's own when empty.
Result<void> replaceFile(const std::string& target, const std::string& source,
                         std::optional<mode_t> mode);

}  // namespace utilia::platform
