#include "Applications/utiliactl/LoginCommand.h"

#include <algorithm>
#include <optional>
#include <ostream>

#include "Applications/utiliactl/JsonText.h"
#include "Applications/utiliactl/PlainText.h"
#include "Common/Platform/LoginItems.h"
#include "Common/Platform/Workspace.h"
#include "Common/UtiliaCommon/AdminSettings/ToolSets.h"
#include "Common/UtiliaCommon/LoginItems/UtiliaToolLauncher.h"

namespace utilia::control {
namespace {

using platform::LoginItem;
using platform::LoginItems;
using platform::RunningApplication;
using platform::Workspace;

// The file by which the session starts the launcher; null when it does not.
Result<Json> entryOf(const std::optional<std::string>& launcher) {
    const auto list = LoginItems::create();
    if (!list) return list.error();
    const auto items = list->snapshot();
    if (!items) return items.error();
    const auto found = std::find_if(items->begin(), items->end(), [&](const LoginItem& item) {
        return launcher && item.resolvedURL() == launcher;
    });
    return found == items->end() ? Json(nullptr) : Json(found->path());
}

bool contains(const ToolSets::Identifiers& identifiers, const std::string& tool) {
    return std::find(identifiers.begin(), identifiers.end(), tool) != identifiers.end();
}

bool isInstalled(const std::string& tool) {
    return Workspace::URLForApplicationWithBundleIdentifier(tool).has_value();
}

Json toolsAsJson() {
    const auto whiteList = ToolSets::loadWhiteList();
    Json tools = Json::array();
    const auto list = UtiliaToolLauncher::getDefaults()->arrayForKey(kLaunchAtLoginToolsKey);
    for (const Value& value : list.value_or(Array())) {
        if (!value.string()) continue;
        const std::string& tool = *value.string();
        tools.push_back(
            {{"bundleid", tool},
             {"installed", isInstalled(tool)},
             {"running",
              !RunningApplication::runningApplicationsWithBundleIdentifier(tool).empty()},
             {"restricted",
              whiteList && contains(ToolSets::fullSet(), tool) && !contains(*whiteList, tool)}});
    }
    return tools;
}

std::vector<std::string> rowOf(const Json& tool) {
    const auto yesOrNo = [&tool](const char* key) { return tool[key] == true ? "yes" : "no"; };
    return {tool["bundleid"].get<std::string>(), yesOrNo("installed"), yesOrNo("running"),
            yesOrNo("restricted")};
}

std::string plain(const Json& path) {
    return path.is_null() ? "none" : inQuotes(path.get<std::string>());
}

std::string outline(const Json& answer) {
    std::vector<std::vector<std::string>> rows;
    for (const Json& tool : answer["tools"]) rows.push_back(rowOf(tool));
    return "Launcher:    " + plain(answer["launcher"]) +
           "\nLogin entry: " + plain(answer["entry"]) + "\n\n" +
           table({"BUNDLE IDENTIFIER", "INSTALLED", "RUNNING", "RESTRICTED"}, rows,
                 "No tool is to be started at login.");
}

}  // namespace

CLI::App* LoginCommand::declare(CLI::App& program) {
    CLI::App* const command =
        program.add_subcommand("login", "Shows and changes which tools are started at login.");
    command->require_subcommand(1);
    CLI::App* const list =
        command->add_subcommand("list", "Lists the tools, and how the session starts them.");
    list->add_flag("--json", json_, "Answer as JSON");
    list->callback([this] { chosen_ = &LoginCommand::list; });
    CLI::App* const add = command->add_subcommand("add", "Has a tool started at login.");
    add->footer("The tool must be installed. One that was in the list already stays where it is, "
                "and the entry by which the session starts the list is put in order.");
    add->add_option("BUNDLE_ID", tool_, "The tool's bundle identifier")->required();
    add->callback([this] { chosen_ = &LoginCommand::add; });
    CLI::App* const remove =
        command->add_subcommand("remove", "Has a tool no longer started at login.");
    remove->footer("The tool need not be installed. With the last tool the session's entry goes.");
    remove->add_option("BUNDLE_ID", tool_, "The tool's bundle identifier")->required();
    remove->callback([this] { chosen_ = &LoginCommand::remove; });
    return command;
}

Result<void> LoginCommand::run(std::ostream& out) { return (this->*chosen_)(out); }

Result<void> LoginCommand::list(std::ostream& out) const {
    const auto launcher = UtiliaToolLauncher::launchHelperURL();
    const auto entry = entryOf(launcher);
    if (!entry) return entry.error();
    const Json answer{{"launcher", launcher ? Json(*launcher) : Json(nullptr)},
                      {"loginItem", !entry->is_null()},
                      {"entry", *entry},
                      {"tools", toolsAsJson()}};
    out << (json_ ? textOfJson(answer) : outline(answer));
    return {};
}

Result<void> LoginCommand::add(std::ostream& out) const {
    if (!isInstalled(tool_)) {
        return Error::utilia(UtiliaErrorCode::NotFound, inQuotes(tool_) + " is not installed");
    }
    const bool wasListed = UtiliaToolLauncher::isToolInLaunchAtLogin(tool_);
    const bool isLoginItem = UtiliaToolLauncher::addToolToLaunchAtLogin(tool_);
    if (!UtiliaToolLauncher::isToolInLaunchAtLogin(tool_)) {
        return Error::utilia(UtiliaErrorCode::Unavailable, "the list cannot be stored");
    }
    if (!isLoginItem) {
        return Error::utilia(
            UtiliaErrorCode::Unavailable,
            tool_ + " is in the list, but the launcher could not be made a login item");
    }
    out << tool_ << (wasListed ? " was in the list already.\n" : " is started at login.\n");
    return {};
}

Result<void> LoginCommand::remove(std::ostream& out) const {
    const bool wasListed = UtiliaToolLauncher::isToolInLaunchAtLogin(tool_);
    const bool isDone = UtiliaToolLauncher::removeToolFromLaunchAtLogin(tool_);
    if (UtiliaToolLauncher::isToolInLaunchAtLogin(tool_)) {
        return Error::utilia(UtiliaErrorCode::Unavailable, "the list cannot be stored");
    }
    if (!isDone) {
        return Error::utilia(
            UtiliaErrorCode::Unavailable,
            "the list is empty, but the launcher could not be taken out of the login items");
    }
    out << (wasListed ? tool_ + " is no longer started at login.\n"
                      : inQuotes(tool_) + " was not in the list.\n");
    return {};
}

}  // namespace utilia::control
