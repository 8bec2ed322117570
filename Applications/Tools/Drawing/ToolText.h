#pragma once

#include <string>
#include <string_view>

#include "Common/Platform/Bundle.h"
#include "Common/UtiliaCommon/LocalizedTexts.h"

namespace utilia::tools {

// A tool's text in the user's language; `key` is the English one. Localization/Tools has the others.
inline std::string toolText(std::string_view key) {
    const platform::Bundle* const bundle = platform::Bundle::mainBundle();
    return bundle ? bundle->localizedStringForKey(key) : std::string(key);
}

// The same, with `name` in the place of each "%@".
inline std::string toolText(std::string_view key, std::string_view name) {
    return textWithName(toolText(key), key, name);
}

}  // namespace utilia::tools
