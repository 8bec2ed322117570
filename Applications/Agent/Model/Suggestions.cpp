#include "Applications/Agent/Model/Suggestions.h"

#include <algorithm>

#include "Common/Platform/UserDefaults.h"
#include "Common/UtiliaCommon/Auxiliary/CommonAuxiliary.h"
#include "Common/UtiliaCommon/LoginItems/UtiliaToolLauncher.h"

namespace utilia::agent {
namespace {

Array knownTools() {
    const auto defaults = UtiliaToolLauncher::getDefaults();
    const auto known = defaults ? defaults->arrayForKey(kKnownToolsKey) : std::nullopt;
    return known.value_or(Array());
}

bool holds(const Array& tools, const std::string& identifier) {
    return std::find(tools.begin(), tools.end(), Value(identifier)) != tools.end();
}

}  // namespace

std::optional<std::string> Suggestions::next(const std::vector<ToolEntry>& tools) {
    if (!areEnabled() || CommonAuxiliary::sharedInstance().areToolsSuggestionsPaused())
        return std::nullopt;
    const Array known = knownTools();
    for (const ToolEntry& tool : tools) {
        const bool isUnused =
            tool.isReady() && !tool.isRunning && tool.status == kToolStatusInactive;
        if (isUnused && !holds(known, tool.identifier)) return tool.identifier;
    }
    return std::nullopt;
}

void Suggestions::setKnown(const std::string& identifier) {
    Array known = knownTools();
    if (holds(known, identifier)) return;
    known.append(identifier);
    if (const auto defaults = UtiliaToolLauncher::getDefaults())
        defaults->setObject(known, kKnownToolsKey);
}

bool Suggestions::areEnabled() {
    const auto defaults = UtiliaToolLauncher::getDefaults();
    return !defaults || !defaults->boolForKey(kSuggestionsDisabledKey);
}

void Suggestions::setEnabled(bool enabled) {
    if (const auto defaults = UtiliaToolLauncher::getDefaults())
        defaults->setObject(!enabled, kSuggestionsDisabledKey);
}

}  // namespace utilia::agent
