#include "Common/UtiliaCommon/Resources/VersionManager.h"

#include <vector>

#include "Common/Foundation/Numbers.h"
#include "Common/Foundation/NumericText.h"
#include "Common/Logging/MemoryGuard.h"
#include "Common/Platform/CharacterProperties.h"

namespace utilia {
namespace {

using platform::Bundle;

constexpr std::size_t kComponents = 4;
constexpr std::string_view kWhat = "A version";
constexpr std::string_view kShortVersionKey = "CFBundleShortVersionString";
constexpr std::string_view kBuildNumberKey = "CFBundleVersion";

std::string component(const std::optional<IndexPath>& version, std::size_t position) {
    if (!version) return "0";
    return std::to_string(static_cast<std::int64_t>(version->indexAtPosition(position)));
}

// "1.2.3" and what comes before and after the fourth.
std::string text(const std::optional<IndexPath>& version, std::string_view before,
                 std::string_view after) {
    std::string result = component(version, 0);
    result.append(".").append(component(version, 1)).append(".").append(component(version, 2));
    return result.append(before).append(component(version, 3)).append(after);
}

std::optional<IndexPath> parsed(std::string_view string) {
    // One more than wanted tells that there are too many.
    const auto runs = digitRuns(string, kComponents + 1, platform::systemCharacterProperties());
    if (runs.size() != kComponents) return std::nullopt;
    IndexPath version;
    for (const std::string_view run : runs)
        version.addIndex(static_cast<std::uint64_t>(longLongValue(run)));
    return version;
}

// What the Info.plist says, part by part.
IndexPath declared(const Dictionary& info) {
    IndexPath version;
    const Value* const shortVersion = info.find(kShortVersionKey);
    if (const std::string* const parts = shortVersion ? shortVersion->string() : nullptr) {
        std::string_view rest = *parts;
        for (;;) {
            const std::string_view part = rest.substr(0, rest.find('.'));
            version.addIndex(static_cast<std::uint64_t>(longLongValue(part)));
            if (part.size() == rest.size()) break;
            rest.remove_prefix(part.size() + 1);
        }
    }
    const Value* const build = info.find(kBuildNumberKey);
    version.addIndex(build ? static_cast<std::uint64_t>(build->longLongValue()) : 0);
    return version;
}

}  // namespace

std::optional<IndexPath> VersionManager::versionWithString(std::optional<std::string_view> string) {
    if (!string) return std::nullopt;
    return unlessOutOfMemory(kWhat, [&] { return parsed(*string); });
}

IndexPath VersionManager::versionFromBundle(const Bundle* bundle) {
    return unlessOutOfMemory(
        kWhat, [&] { return declared(bundle ? bundle->infoDictionary() : Dictionary()); });
}

IndexPath VersionManager::mainBundleVersion() { return versionFromBundle(Bundle::mainBundle()); }

std::string VersionManager::mainBundleVersionReportForm() {
    return versionToStringReportForm(mainBundleVersion());
}

std::string VersionManager::stringVersionFromBundle(const Bundle* bundle) {
    return versionToString(versionFromBundle(bundle));
}

std::string VersionManager::versionToString(const std::optional<IndexPath>& version) {
    return unlessOutOfMemory(kWhat, [&] { return text(version, " (", ")"); });
}

std::string VersionManager::versionToStringReportForm(const std::optional<IndexPath>& version) {
    return unlessOutOfMemory(kWhat, [&] { return text(version, "-", ""); });
}

ComparisonResult VersionManager::compareVersion(std::string_view version,
                                                std::string_view withVersion) {
    return compareNumerically(version, withVersion, platform::systemCharacterProperties());
}

}  // namespace utilia
