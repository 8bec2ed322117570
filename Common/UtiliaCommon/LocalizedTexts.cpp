#include "Common/UtiliaCommon/LocalizedTexts.h"

#include "Common/Platform/Bundle.h"

namespace utilia {
namespace {

constexpr std::string_view kNamePlace = "%@";

}  // namespace

std::string localizedText(std::string_view key) {
    const platform::Bundle* const framework = platform::Bundle::frameworkBundle();
    return framework ? framework->localizedStringForKey(key, "") : std::string(key);
}

std::string textWithName(std::string_view localizedFormat, std::string_view englishFormat,
                         std::string_view name) {
    const auto hasPlace = [](std::string_view format) {
        return format.find(kNamePlace) != std::string_view::npos;
    };
    const bool hasLostPlace = hasPlace(englishFormat) && !hasPlace(localizedFormat);
    std::string_view rest = hasLostPlace ? englishFormat : localizedFormat;
    std::string text;
    for (std::size_t place; (place = rest.find(kNamePlace)) != std::string_view::npos;) {
        text.append(rest.substr(0, place)).append(name);
        rest.remove_prefix(place + kNamePlace.size());
    }
    return text.append(rest);
}

}  // namespace utilia
