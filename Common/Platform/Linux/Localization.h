#pragma once

#include <optional>
#include <string>

#include "Common/Platform/Linux/MessageCatalog.h"

namespace utilia::platform {

// The one localisation of a bundle that is in use.
struct Localization {
    std::string language = "en";
    std::optional<MessageCatalog> catalog;  // without one the keys themselves are the texts
};

// Chooses among the folders LANGUAGE.lproj in `resources` by the user's languages, and reads that
// one's table, Localizable.mo. A table that is missing is passed over; one that cannot be used
// means English, and is logged.
Localization chooseLocalization(const std::string& resources);

}  // namespace utilia::platform
