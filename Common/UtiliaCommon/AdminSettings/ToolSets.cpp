#include "Common/UtiliaCommon/AdminSettings/ToolSets.h"

#include <algorithm>
#include <cstdint>

#include "Common/Foundation/Description.h"
#include "Common/Foundation/Value.h"
#include "Common/Logging/Log.h"
#include "Common/Platform/JSONSerialization.h"
#include "Common/Platform/StringComparison.h"
#include "Common/UtiliaCommon/AdminSettings/KAVAdminStorage.h"
#include "Common/UtiliaCommon/AdminSettings/KAVPathHelper.h"
#include "Common/UtiliaCommon/AdminSettings/ToolCatalogueInternal.h"

namespace utilia {
namespace {

std::string bundleIdentifierOf(std::string_view shortName) {
    return std::string(kToolBundleIdentifierPrefix).append(shortName);
}

bool contains(const ToolSets::Identifiers& identifiers, std::string_view wanted) {
    return std::find(identifiers.begin(), identifiers.end(), wanted) != identifiers.end();
}

std::shared_ptr<ToolSets>& shared() {
    static auto* const instance = new std::shared_ptr<ToolSets>;
    return *instance;
}

const char* typeName(const Value& value) {
    switch (value.type()) {
    case Value::Type::Boolean:
        return "a boolean";
    case Value::Type::Integer:
    case Value::Type::Real:
        return "a number";
    case Value::Type::String:
        return "a text";
    case Value::Type::Dictionary:
        return "an object";
    case Value::Type::Null:
        return "null";
    default:
        return "something else";
    }
}

// An entry as the file spells it; texts without their quotes.
std::string entryText(const Value& entry) {
    if (const std::string* const text = entry.string()) return *text;
    const auto json = platform::dataFromJSONObject(Array{entry}, platform::JSONForm::Compact);
    return json ? std::string(json->begin() + 1, json->end() - 1) : std::string();
}

}  // namespace

std::shared_ptr<ToolSets> ToolSets::createSharedInstance() {
    return shared() = std::make_shared<ToolSets>();
}

std::shared_ptr<ToolSets> ToolSets::sharedInstance() { return shared(); }

ToolSets::Identifiers ToolSets::fullSet() {
    Identifiers identifiers;
    identifiers.reserve(toolCatalogue().size());
    for (const CatalogueTool& tool : toolCatalogue())
        identifiers.push_back(bundleIdentifierOf(tool.shortName));
    return identifiers;
}

ToolSets::Identifiers ToolSets::businessPredefinedSet() {
    Identifiers media;
    for (const CatalogueTool& tool : toolCatalogue()) {
        if (tool.isMedia) media.push_back(bundleIdentifierOf(tool.shortName));
    }
    Identifiers identifiers = fullSet();
    std::erase_if(identifiers, [&](const std::string& identifier) {
        return isFoundCaseInsensitveString(identifier, media);
    });
    return identifiers;
}

bool ToolSets::isFoundCaseInsensitveString(std::string_view string, const Identifiers& inArray,
                                           std::string* foundObject) {
    const auto found =
        std::find_if(inArray.begin(), inArray.end(), [&](const std::string& element) {
            return platform::isCaseInsensitiveEqual(element, string);
        });
    if (found == inArray.end()) return false;
    if (foundObject) *foundObject = *found;
    return true;
}

std::optional<ToolSets::Identifiers> ToolSets::loadWhiteList() {
    std::int64_t error = 0;
    const auto settings = KAVAdminStorage::init(kKAVOpenExisting, &error);
    if (!settings) return std::nullopt;
    return whiteListFromSettings(settings->currentAsRawData());
}

std::optional<ToolSets::Identifiers> ToolSets::whiteListFromSettings(const Dictionary& settings) {
    const Value* const value = settings.find(kKAVWhiteToolsListKey);
    if (!value) return std::nullopt;
    const Array* const entries = value->array();
    if (!entries) {
        KULogVariadic("%@: \"%@\" is %@ and no array, so that every tool is forbidden.",
                      KAVPathHelper::filePath(), kKAVWhiteToolsListKey, typeName(*value));
        return Identifiers();
    }
    const Value subset(kKAVWhiteToolsList_BusinessToolsetValue);
    if (std::find(entries->begin(), entries->end(), subset) != entries->end())
        return businessPredefinedSet();
    // Identifiers differ in what follows their common beginning, so that this is what is compared:
    // every tool of the product does it at each start.
    Identifiers result;
    for (const Value& entry : *entries) {
        const std::string* const name = entry.string();
        const auto tools = toolCatalogue();
        const auto found = std::find_if(tools.begin(), tools.end(), [&](const CatalogueTool& tool) {
            return name && platform::isCaseInsensitiveEqual(tool.shortName, *name);
        });
        if (found != tools.end()) {
            result.push_back(bundleIdentifierOf(found->shortName));
        } else if (KUIsExtendedLoggingOn()) {
            KULogVariadic("Wrong toolname in white-list - '%@'. Will be ignored", entryText(entry));
        }
    }
    return result;
}

ToolSets::ToolSets() : whiteList_(loadWhiteList()) { traceForbiddenTools(); }

ToolSets::Identifiers ToolSets::currentUnrestrictedToolSet() const { return fullSet(); }

void ToolSets::traceForbiddenTools() const {
    if (!whiteList_) return;
    Identifiers forbidden = currentUnrestrictedToolSet();
    std::erase_if(forbidden,
                  [&](const std::string& identifier) { return contains(*whiteList_, identifier); });
    KULogVariadic("The next tools are forbidden due to white-list settings: %@",
                  descriptionOfArray(forbidden));
}

bool ToolSets::isToolAllowedWithBundleId(std::string_view bundleId, bool* isInSet,
                                         bool* isRestricted) const {
    const bool inSet = contains(currentUnrestrictedToolSet(), bundleId);
    const bool restricted = whiteList_ && !contains(*whiteList_, bundleId);
    if (isInSet) *isInSet = inSet;
    if (isRestricted) *isRestricted = restricted;
    return inSet && !restricted;
}

bool ToolSets::isToolAllowed(const platform::Bundle& bundle, bool* isInSet,
                             bool* isRestricted) const {
    return isToolAllowedWithBundleId(bundle.bundleIdentifier().value_or(std::string()), isInSet,
                                     isRestricted);
}

}  // namespace utilia
