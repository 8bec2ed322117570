#include "Applications/utiliactl/ToolsCommand.h"

#include <ostream>

#include "Applications/utiliactl/JsonText.h"
#include "Applications/utiliactl/PlainText.h"
#include "Applications/utiliactl/SharedStore.h"
#include "Common/Platform/FileManager.h"
#include "Common/UtiliaCommon/PersistentData/ToolPersistentDataReader.h"

namespace utilia::control {
namespace {

using platform::FileManager;

Json pathIfThere(const std::optional<std::string>& path) {
    return path && FileManager::fileExistsAtPath(*path) ? Json(*path) : Json(nullptr);
}

bool isTemplate(const std::optional<std::string>& iconPath) {
    if (!iconPath) return false;
    const auto flag = FileManager::extendedAttribute(*iconPath, kTemplateAttribute, 1);
    return flag && flag->size() == 1 && flag->front() != 0;
}

// Entries are named by bundle identifier, underscore and file name; identifiers hold no underscore.
Json toolAsJson(std::string_view entryKey, const Dictionary& record) {
    const std::size_t separator = entryKey.find('_');
    const std::string identifier(entryKey.substr(0, separator));
    const std::string name(separator == std::string_view::npos ? ""
                                                               : entryKey.substr(separator + 1));
    const ToolPersistentDataReader reader(name, identifier);
    const auto menuText = record.string(kToolMenuTextKey);
    const auto menuIcon = reader.getMenuIconPath();
    return {
        {"bundleid", identifier},
        {"name", name},
        {"permanent", record.boolean(kToolPermanentKey)},
        {"menuText", menuText ? Json(*menuText) : Json(nullptr)},
        {"toolIcon", pathIfThere(reader.getToolIconPath())},
        {"menuIcon", pathIfThere(menuIcon)},
        {"menuIconIsTemplate", isTemplate(menuIcon)},
    };
}

std::vector<std::string> rowOf(const Json& tool) {
    const auto yesOrNo = [&tool](const char* key) { return tool[key].is_null() ? "no" : "yes"; };
    const char* const menuIcon =
        tool["menuIconIsTemplate"] == true ? "template" : yesOrNo("menuIcon");
    return {tool["bundleid"].get<std::string>(),
            tool["name"].get<std::string>(),
            tool["permanent"] == true ? "yes" : "no",
            yesOrNo("toolIcon"),
            menuIcon,
            tool["menuText"].is_null() ? "-" : tool["menuText"].dump()};
}

}  // namespace

CLI::App* ToolsCommand::declare(CLI::App& program) {
    CLI::App* const command =
        program.add_subcommand("tools", "Lists what tools left behind for the agent to show.");
    command->add_flag("--json", json_, "Answer as JSON");
    return command;
}

Result<void> ToolsCommand::run(std::ostream& out) {
    const auto content = readSharedStore();
    if (!content) return content.error();
    Json list = Json::array();
    std::vector<std::vector<std::string>> rows;
    for (const auto& [key, value] :
         content->dictionary(kToolPersistentDataKey).value_or(Dictionary())) {
        if (!value.dictionary()) continue;
        Json tool = toolAsJson(key, *value.dictionary());
        rows.push_back(rowOf(tool));
        list.push_back(std::move(tool));
    }
    out << (json_ ? textOfJson(list)
                  : table({"BUNDLE IDENTIFIER", "NAME", "PERMANENT", "ICON", "MENU ICON",
                           "MENU TEXT"},
                          rows, "No tool has left anything behind."));
    return {};
}

}  // namespace utilia::control
