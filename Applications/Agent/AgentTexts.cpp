#include "Applications/Agent/AgentTexts.h"

#include "Common/Platform/Bundle.h"
#include "Common/UtiliaCommon/LocalizedTexts.h"

namespace utilia::agent {

using platform::Bundle;

QString text(std::string_view key) {
    const Bundle* const bundle = Bundle::mainBundle();
    return QString::fromStdString(bundle ? bundle->localizedStringForKey(key) : std::string(key));
}

QString textWithName(std::string_view key, const QString& name) {
    return QString::fromStdString(
        utilia::textWithName(text(key).toStdString(), key, name.toStdString()));
}

std::string textLanguage() {
    const Bundle* const bundle = Bundle::mainBundle();
    return bundle ? bundle->preferredLocalization() : "en";
}

}  // namespace utilia::agent
