#include "Common/UtiliaCommon/CEP/EventLogHeader.h"

#include <cstdint>
#include <memory>
#include <optional>

#include "Common/Foundation/Value.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/UserDefaults.h"
#include "Common/Platform/Workspace.h"
#include "Common/UtiliaCommon/Auxiliary/CommonAuxiliary.h"
#include "Common/UtiliaCommon/CEP/EventRecord.h"
#include "Common/UtiliaCommon/ToolDataProvider/PortProtocol.h"

namespace utilia {
namespace {

using platform::Bundle;
using platform::HostInfo;
using platform::UserDefaults;

constexpr std::string_view kBrowser = "com.apple.safari";
constexpr std::string_view kNotificationSettings = "com.apple.ncprefs";
constexpr std::string_view kNotificationCenter = "com.apple.notificationcenterui";
// Of a notification's flags: banners and alerts.
constexpr std::int64_t kShownFlags = 8 | 16;
constexpr std::size_t kLongestVersion = 49;

// A domain that is read here and now: objects are of one thread, and an event may be of any.
std::unique_ptr<UserDefaults> domain(std::string_view name) {
    return UserDefaults::initWithDomain(name);
}

std::string asGiven(std::string_view text) {
    TextBuffer out;
    appendAsGiven(out, text);
    return std::string(out.text());
}

std::string versionText(const HostInfo::OperatingSystemVersion& version) {
    std::string text = std::to_string(version.majorVersion) + "." +
                       std::to_string(version.minorVersion) + "." +
                       std::to_string(version.patchVersion);
    if (text.size() > kLongestVersion) text.resize(kLongestVersion);
    return text;
}

std::string browserVersion() {
    const auto path = platform::Workspace::URLForApplicationWithBundleIdentifier(kBrowser);
    if (!path) return {};
    const auto bundle = Bundle::bundleWithPath(*path);
    if (!bundle) return {};
    return asGiven(bundle->infoDictionary().string("CFBundleShortVersionString").value_or(""));
}

std::string notificationLines() {
    const auto settings = domain(kNotificationSettings);
    const auto apps = settings ? settings->arrayForKey("apps") : std::nullopt;
    std::string lines;
    for (const Value& item : apps.value_or(Array())) {
        const Dictionary* app = item.dictionary();
        if (!app) continue;
        const auto identifier = app->string("bundle-id");
        const Value* flags = app->find("flags");
        if (!identifier || !identifier->starts_with(kAgentBundleIdentifier) || !flags ||
            (flags->type() != Value::Type::Integer && flags->type() != Value::Type::Real))
            continue;
        const std::int64_t number = flags->longLongValue();
        lines += "\t<Notification tool=\"" + asGiven(*identifier) + "\" enabled=\"" +
                 ((number & kShownFlags) != 0 ? "yes" : "no") + "\">" + std::to_string(number) +
                 "</Notification>\n";
    }
    return lines;
}

bool isDoNotDisturbOn(const HostInfo& host) {
    if (const auto center = domain(kNotificationCenter)) {
        const auto value = center->objectForKey("doNotDisturb");
        if (value && value->boolean()) return *value->boolean();
    }
    return host.isDoNotDisturbOn().value_or(false);
}

// The running application's own preferences.
bool ownSetting(std::string_view key) {
    const Bundle* bundle = Bundle::mainBundle();
    const auto identifier = bundle ? bundle->bundleIdentifier() : std::nullopt;
    const auto own = identifier ? domain(*identifier) : nullptr;
    return own && own->boolForKey(key);
}

std::string settingsLines() {
    std::size_t count = 0;
    std::size_t active = 0;
    if (const auto agent = domain(kAgentBundleIdentifier)) {
        const auto shortcuts = agent->arrayForKey("Shortcuts").value_or(Array());
        count = shortcuts.size();
        for (const Value& item : shortcuts)
            active += item.dictionary() && item.dictionary()->boolean("active") ? 1 : 0;
    }
    const Bundle* bundle = Bundle::mainBundle();
    const bool startsAtLogin =
        bundle && CommonAuxiliary::sharedInstance().findAppInLoginItems(bundle->bundlePath());
    const bool updates = !ownSetting("disableAutomaticUpdates");
    const auto line = [](std::string_view name, bool isOn) {
        return "\t<" + std::string(name) + " enabled=\"" + (isOn ? "1" : "0") + "\">" +
               (isOn ? "yes" : "no") + "</" + std::string(name) + ">\n";
    };
    return "\t<Shortcuts count=\"" + std::to_string(count) + "\" active_count=\"" +
           std::to_string(active) + "\">" + (count != 0 ? "yes" : "no") + "</Shortcuts>\n" +
           line("StartupAtLogin", startsAtLogin) + line("AutomaticUpdates", updates);
}

std::string appearance(const HostInfo& host) {
    if (ownSetting("AppleInterfaceStyleSwitchesAutomatically")) return "auto";
    const auto found = host.appearance();
    if (!found) return {};
    return *found == HostInfo::Appearance::Dark ? "dark" : "light";
}

}  // namespace

EventLogFacts gatherEventLogFacts(const HostInfo& host, std::string_view hardwareUUID,
                                  std::string_view clientVersion) {
    return {
        .hardwareUUID = std::string(hardwareUUID),
        .osInfo = versionText(host.operatingSystemVersion()),
        .computerModel = host.model(),
        .locale = asGiven(HostInfo::localeIdentifier()),
        .clientVersion = asGiven(clientVersion),
        .safariVersion = browserVersion(),
        .isSystemDoNotDisturb = isDoNotDisturbOn(host),
        .notificationLines = notificationLines(),
        .hasBattery = host.hasInternalBattery(),
        .appearance = appearance(host),
        .settingsLines = settingsLines(),
    };
}

EventLogHeader eventLogHeader(const EventLogFacts& facts) {
    return {
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<KorvaneProblemReport>\n<Type>9</Type>\n"
        "<ReportReason>0</ReportReason>\n<ProductName>Korvane Utilia</ProductName>\n<HardwareUUID>",
        facts.hardwareUUID,
        "</HardwareUUID>\n<OSVersion>",
        facts.osInfo,
        "</OSVersion>\n<ComputerModel>",
        facts.computerModel,
        "</ComputerModel>\n<Locale>",
        facts.locale,
        "</Locale>\n<ClientVersion>",
        facts.clientVersion,
        "</ClientVersion>\n<SafariVersion>",
        facts.safariVersion,
        "</SafariVersion>\n<MoreHostInfo>\n<SystemDoNotDisturb>",
        facts.isSystemDoNotDisturb ? "1" : "0",
        "</SystemDoNotDisturb>\n<Notifications>\n",
        facts.notificationLines,
        "</Notifications>\n<HasBattery>",
        facts.hasBattery ? "yes" : "no",
        "</HasBattery>\n<Appearance>",
        facts.appearance,
        "</Appearance>\n</MoreHostInfo>\n<UtiliaInfo>\n",
        facts.settingsLines,
        "</UtiliaInfo>\n<CepCustomData>\n",
    };
}

}  // namespace utilia
