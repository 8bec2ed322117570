#pragma once

#include <array>
#include <string>
#include <string_view>

#include "Common/Foundation/Export.h"

// Every text of the framework that a user may read. The English text is the key, under which
// Localization/LANGUAGE.po has the others.

namespace utilia {

// %@: the tool's name.
inline constexpr std::string_view kAgentRequiredText =
    "Korvane Utilia is required for %@ to function properly. Would you like to launch Korvane "
    "Utilia?";
inline constexpr std::string_view kLaunchAgentText = "Launch Korvane Utilia";
inline constexpr std::string_view kQuitText = "Quit";
inline constexpr std::string_view kRestrictedText =
    "This tool cannot be launched due to restrictions. Please contact your system administrator "
    "for "
    "more information.";
inline constexpr std::string_view kOkText = "OK";
// Its translation is the code of the language itself: "de" in German.
inline constexpr std::string_view kLanguageCodeText = "en";

inline constexpr std::array kLocalizedTexts{
    kAgentRequiredText, kLaunchAgentText, kQuitText, kRestrictedText, kOkText, kLanguageCodeText};

// From the framework's own bundle; the key itself without a translation, and without that bundle.
//
// Threads: any.
UTILIA_EXPORT std::string localizedText(std::string_view key);

// A localised format with `name` in the place of each "%@"; the English one when only that has a
// place for the name. The name is not looked into.
UTILIA_EXPORT std::string textWithName(std::string_view localizedFormat,
                                       std::string_view englishFormat, std::string_view name);

}  // namespace utilia
