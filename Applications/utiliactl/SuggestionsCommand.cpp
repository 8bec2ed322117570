#include "Applications/utiliactl/SuggestionsCommand.h"

#include <algorithm>
#include <ostream>
#include <vector>

#include "Applications/utiliactl/JsonText.h"
#include "Applications/utiliactl/PlainText.h"
#include "Applications/utiliactl/SharedStore.h"
#include "Common/Platform/Workspace.h"
#include "Common/UtiliaCommon/Auxiliary/CommonAuxiliary.h"

namespace utilia::control {
namespace {

Result<Array> pausingTools() {
    const auto content = readSharedStore();
    if (!content) return content.error();
    return content->array(kToolsSuggestionsPausedByKey).value_or(Array());
}

// Has the tool in the list, or not in it; answers whether that is now so.
Result<void> change(const std::string& tool, bool pause) {
    // A list that another program has made may hold a tool several times; each call takes one out.
    for (std::ptrdiff_t before = -1;;) {
        CommonAuxiliary::sharedInstance().pauseToolsSuggestions(pause, tool);
        const auto tools = pausingTools();
        if (!tools) return tools.error();
        const std::ptrdiff_t listed = std::count(tools->begin(), tools->end(), Value(tool));
        if ((listed > 0) == pause) return {};
        if (pause || listed == before) break;
        before = listed;
    }
    return Error::utilia(UtiliaErrorCode::Unavailable, "the pause cannot be stored");
}

}  // namespace

CLI::App* SuggestionsCommand::declare(CLI::App& program) {
    CLI::App* const command = program.add_subcommand(
        "suggestions", "Pauses the agent's suggestions of tools, as a tool does.");
    command->require_subcommand(1);
    const auto addTool = [this](CLI::App* subcommand) {
        subcommand->add_option("BUNDLE_ID", tool_, "The tool's bundle identifier")
            ->required()
            ->check(refuseEmpty);
    };
    CLI::App* const pause =
        command->add_subcommand("pause", "Pauses suggestions for as long as a tool runs.");
    pause->footer("Tools that do not run are forgotten when the state is next asked for.");
    addTool(pause);
    pause->callback([this] { chosen_ = &SuggestionsCommand::pause; });
    CLI::App* const resume = command->add_subcommand("resume", "Takes the wish of a tool back.");
    addTool(resume);
    resume->callback([this] { chosen_ = &SuggestionsCommand::resume; });
    CLI::App* const status =
        command->add_subcommand("status", "Tells whether suggestions are paused, and by whom.");
    status->footer("Forgets the tools that do not run, as the agent does when it asks.");
    status->add_flag("--json", json_, "Answer as JSON");
    status->callback([this] { chosen_ = &SuggestionsCommand::status; });
    return command;
}

Result<void> SuggestionsCommand::run(std::ostream& out) { return (this->*chosen_)(out); }

Result<void> SuggestionsCommand::pause(std::ostream& out) const {
    if (const auto changed = change(tool_, true); !changed) return changed.error();
    if (platform::RunningApplication::runningApplicationsWithBundleIdentifier(tool_).empty())
        out << inQuotes(tool_)
            << " does not run: this is forgotten when the state is next asked for.\n";
    return {};
}

Result<void> SuggestionsCommand::resume(std::ostream&) const { return change(tool_, false); }

Result<void> SuggestionsCommand::status(std::ostream& out) const {
    const bool isPaused = CommonAuxiliary::sharedInstance().areToolsSuggestionsPaused();
    const auto tools = pausingTools();
    if (!tools) return tools.error();
    const Json by = isPaused ? jsonFromValue(*tools) : Json::array();
    if (json_) {
        out << textOfJson(Json{{"paused", isPaused}, {"by", by}});
        return {};
    }
    std::vector<std::vector<std::string>> rows;
    for (const Json& tool : by) rows.push_back({tool.is_string() ? tool.get<std::string>() : "-"});
    out << table({"PAUSED BY"}, rows, "Suggestions are not paused.");
    return {};
}

}  // namespace utilia::control
