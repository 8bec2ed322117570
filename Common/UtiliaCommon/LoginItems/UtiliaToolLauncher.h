#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Common/Foundation/Export.h"
#include "Common/Platform/UserDefaults.h"

namespace utilia {

// Keys of the agent's preferences. Contract: never rename.
inline constexpr std::string_view kLaunchAtLoginToolsKey = "LaunchAtLoginTools";      // array
inline constexpr std::string_view kToolLauncherMigratedKey = "ToolLauncherMigrated";  // boolean

// The tools that are started when the user logs in.
//
// The session knows one login item for all of them, the launcher application inside the agent's
// bundle. Which tools it starts is a list of bundle identifiers in the agent's preferences, in the
// order in which they were added and without duplicates. The launcher is a login item as long as
// there is a tool in the list. Each call stores the list in one step; two processes that change it
// at the same moment may lose one of the changes.
//
// Threads: the main thread.
class UTILIA_EXPORT UtiliaToolLauncher final {
public:
    UtiliaToolLauncher() = delete;

    // The agent's preferences. Null only where memory runs out.
    static std::shared_ptr<platform::UserDefaults> getDefaults();

    // Takes tools that are login items themselves, as some once were, over into the list. Done once
    // for each user, and never tried again: later calls read one key.
    static void migrate();

    // Adds the tool, unless the list has it, and makes sure of the login item in any case. Answers
    // whether the launcher is a login item now; the tool stays in the list even if it is not.
    static bool addToolToLaunchAtLogin(std::string_view bundleIdentifier);
    // Removes the tool, and the login item when no tool is left. False when the list cannot be
    // stored, and when the login items cannot be read.
    static bool removeToolFromLaunchAtLogin(std::string_view bundleIdentifier);
    static bool isToolInLaunchAtLogin(std::string_view bundleIdentifier);

    // The launcher's bundle inside the agent's, whether or not it is there; empty when no agent is
    // installed.
    static std::optional<std::string> launchHelperURL();
    // The URL of the first login item with this file name, such as "Timer.app".
    static std::optional<std::string> findAppInLoginItems(std::string_view name);
};

}  // namespace utilia
