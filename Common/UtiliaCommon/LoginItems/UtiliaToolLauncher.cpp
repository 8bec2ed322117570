#include "Common/UtiliaCommon/LoginItems/UtiliaToolLauncher.h"

#include <algorithm>
#include <array>
#include <chrono>

#include "Common/Foundation/PathFunctions.h"
#include "Common/Logging/Log.h"
#include "Common/Logging/MemoryGuard.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/FileLock.h"
#include "Common/Platform/FileManager.h"
#include "Common/Platform/LoginItems.h"
#include "Common/Platform/Workspace.h"
#include "Common/UtiliaCommon/Auxiliary/CommonAuxiliary.h"
#include "Common/UtiliaCommon/ToolDataProvider/PortProtocol.h"

namespace utilia {
namespace {

using platform::UserDefaults;

constexpr std::string_view kLauncherWithinAgent = "Contents/Applications/Utilia Tool Launcher.app";

constexpr std::string_view kWhat = "Tools to start at login";

struct LegacyTool {
    std::string_view fileName;  // of the application that was the login item
    std::string_view bundleIdentifier;
};
constexpr std::array kLegacyTools{
    LegacyTool{"FreeMemoryLauncher.app", "com.korvane.utilia.FreeMemory"},
    LegacyTool{"Hide Menu Icons.app", "com.korvane.utilia.HideMenuIcons"},
    LegacyTool{"Clipboard History.app", "com.korvane.utilia.ClipboardHistory"},
};

// At the first login after an update fifty tools find the migration undone at the same moment. The
// list is read, changed and stored without a lock, so one of them does it and the others go on.
enum class Turn { Ours, SomebodyElses };
Turn takeTurn(std::optional<platform::FileLock>& lock) {
    const auto folder = platform::FileManager::runtimeFolder();
    if (!folder) return Turn::Ours;
    auto taken = platform::FileLock::acquire(
        stringByAppendingPathComponent(*folder, "tool-launcher-migration.lock"),
        platform::FileLock::Mode::Exclusive, std::chrono::milliseconds(0));
    if (taken) lock = *std::move(taken);
    return !taken && taken.error().is(UtiliaErrorCode::Busy) ? Turn::SomebodyElses : Turn::Ours;
}

bool contains(const Array& list, const Value& bundleIdentifier) {
    return std::find(list.begin(), list.end(), bundleIdentifier) != list.end();
}

}  // namespace

std::shared_ptr<UserDefaults> UtiliaToolLauncher::getDefaults() {
    return unlessOutOfMemory(kWhat, [&]() -> std::shared_ptr<UserDefaults> {
        const platform::Bundle* const main = platform::Bundle::mainBundle();
        if (main && main->bundleIdentifier() == kAgentBundleIdentifier) {
            // Kept by the process.
            return {std::shared_ptr<void>(), &UserDefaults::standardUserDefaults()};
        }
        return UserDefaults::initWithDomain(kAgentBundleIdentifier);
    });
}

void UtiliaToolLauncher::migrate() {
    unlessOutOfMemory(kWhat, [&] {
        const auto defaults = getDefaults();
        if (!defaults) return;
        std::optional<platform::FileLock> turn;
        // Asked again once it is our turn: somebody may have done it in between.
        if (defaults->boolForKey(kToolLauncherMigratedKey) ||
            takeTurn(turn) == Turn::SomebodyElses ||
            defaults->boolForKey(kToolLauncherMigratedKey)) {
            if (KUIsExtendedLoggingOn())
                KULogVariadic("Migration of autostarted tools has been already done.");
            return;
        }
        // Before anything else: a migration that fails half-way must not come back at each start.
        defaults->setObject(true, kToolLauncherMigratedKey);
        defaults->synchronize();

        bool isAnyMigrated = false;
        for (const LegacyTool& legacy : kLegacyTools) {
            const auto url = findAppInLoginItems(legacy.fileName);
            if (!url) continue;
            CommonAuxiliary::sharedInstance().removeAppFromLoginItems(url);
            addToolToLaunchAtLogin(legacy.bundleIdentifier);
            KULogVariadic("Tool %@ is migrated to UtiliaToolLauncher.", legacy.bundleIdentifier);
            isAnyMigrated = true;
        }
        if (!isAnyMigrated) KULogVariadic("No tools were migrated to UtiliaToolLauncher.");
    });
}

bool UtiliaToolLauncher::addToolToLaunchAtLogin(std::string_view bundleIdentifier) {
    return unlessOutOfMemory(kWhat, [&] {
        const auto defaults = getDefaults();
        if (!defaults) return false;
        Array list = defaults->arrayForKey(kLaunchAtLoginToolsKey).value_or(Array());
        const Value tool(bundleIdentifier);
        if (!contains(list, tool)) {
            list.append(tool);
            defaults->setObject(std::move(list), kLaunchAtLoginToolsKey);
        }
        return CommonAuxiliary::sharedInstance().addAppToLoginItems(launchHelperURL());
    });
}

bool UtiliaToolLauncher::removeToolFromLaunchAtLogin(std::string_view bundleIdentifier) {
    return unlessOutOfMemory(kWhat, [&] {
        const auto defaults = getDefaults();
        if (!defaults) return false;
        Array list = defaults->arrayForKey(kLaunchAtLoginToolsKey).value_or(Array());
        list.remove(Value(bundleIdentifier));
        const bool isLast = list.empty();
        defaults->setObject(std::move(list), kLaunchAtLoginToolsKey);
        // A list that could not be stored, or read before, is not empty for having lost a tool.
        if (!defaults->synchronize()) return false;
        return !isLast ||
               CommonAuxiliary::sharedInstance().removeAppFromLoginItems(launchHelperURL());
    });
}

bool UtiliaToolLauncher::isToolInLaunchAtLogin(std::string_view bundleIdentifier) {
    return unlessOutOfMemory(kWhat, [&] {
        const auto defaults = getDefaults();
        const auto list =
            defaults ? defaults->arrayForKey(kLaunchAtLoginToolsKey) : std::optional<Array>();
        return list && contains(*list, Value(bundleIdentifier));
    });
}

std::optional<std::string> UtiliaToolLauncher::launchHelperURL() {
    return unlessOutOfMemory(kWhat, [&]() -> std::optional<std::string> {
        const auto agent =
            platform::Workspace::URLForApplicationWithBundleIdentifier(kAgentBundleIdentifier);
        if (!agent) return std::nullopt;
        return stringByAppendingPathComponent(*agent, kLauncherWithinAgent);
    });
}

std::optional<std::string> UtiliaToolLauncher::findAppInLoginItems(std::string_view name) {
    return unlessOutOfMemory(kWhat, [&]() -> std::optional<std::string> {
        const auto list = platform::LoginItems::create();
        const auto items =
            list ? list->snapshot() : Result<std::vector<platform::LoginItem>>(list.error());
        if (!items) {
            KULogVariadic("Login items: %@", items.error());
            return std::nullopt;
        }
        for (const platform::LoginItem& item : *items) {
            const auto& url = item.resolvedURL();
            if (url && lastPathComponent(*url) == name) return url;
        }
        return std::nullopt;
    });
}

}  // namespace utilia
