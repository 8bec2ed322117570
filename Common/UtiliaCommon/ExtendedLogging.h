#pragma once

#include <string_view>

#include "Common/Foundation/Export.h"

namespace utilia {

// Boolean key of the agent's preferences that turns verbose lines on in every process of the
// product.
inline constexpr std::string_view kExtendedLoggingKey = "ExtendedLogging";

// Gives log lines their place (the journal, or stderr) and verbose lines their switch. Done when
// the shared library is loaded; programs that carry the framework's objects call it themselves.
UTILIA_EXPORT void installProductLogging();

}  // namespace utilia
