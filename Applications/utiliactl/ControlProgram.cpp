#include "Applications/utiliactl/ControlProgram.h"

#include <algorithm>

#include "Applications/utiliactl/AdminCommand.h"
#include "Applications/utiliactl/DescriptionsCommand.h"
#include "Applications/utiliactl/DoctorCommand.h"
#include "Applications/utiliactl/EventsCommand.h"
#include "Applications/utiliactl/ExtendedLoggingCommand.h"
#include "Applications/utiliactl/FetchCommand.h"
#include "Applications/utiliactl/ImageCommand.h"
#include "Applications/utiliactl/LoginCommand.h"
#include "Applications/utiliactl/PlainText.h"
#include "Applications/utiliactl/PolicyCommand.h"
#include "Applications/utiliactl/PortNameCommand.h"
#include "Applications/utiliactl/PortsCommand.h"
#include "Applications/utiliactl/ReportingCommand.h"
#include "Applications/utiliactl/ReportsCommand.h"
#include "Applications/utiliactl/ResourcesCommand.h"
#include "Applications/utiliactl/ScheduleCommand.h"
#include "Applications/utiliactl/StoreCommand.h"
#include "Applications/utiliactl/SuggestionsCommand.h"
#include "Applications/utiliactl/ToolsCommand.h"
#include "Applications/utiliactl/WatchCommand.h"

namespace utilia::control {
namespace {

std::vector<std::unique_ptr<Command>> allCommands() {
    std::vector<std::unique_ptr<Command>> commands;
    commands.push_back(std::make_unique<DoctorCommand>());
    commands.push_back(std::make_unique<WatchCommand>());
    commands.push_back(std::make_unique<PortsCommand>());
    commands.push_back(std::make_unique<PortNameCommand>());
    commands.push_back(std::make_unique<StoreCommand>());
    commands.push_back(std::make_unique<ScheduleCommand>());
    commands.push_back(std::make_unique<LoginCommand>());
    commands.push_back(std::make_unique<ResourcesCommand>());
    commands.push_back(std::make_unique<ToolsCommand>());
    commands.push_back(std::make_unique<DescriptionsCommand>());
    commands.push_back(std::make_unique<SuggestionsCommand>());
    commands.push_back(std::make_unique<ImageCommand>());
    commands.push_back(std::make_unique<EventsCommand>());
    commands.push_back(std::make_unique<ReportingCommand>());
    commands.push_back(std::make_unique<ReportsCommand>());
    commands.push_back(std::make_unique<FetchCommand>());
    commands.push_back(std::make_unique<ExtendedLoggingCommand>());
    commands.push_back(std::make_unique<AdminCommand>());
    commands.push_back(std::make_unique<PolicyCommand>());
    return commands;
}

bool isSubcommand(const CLI::App* app) {
    return !app->get_name().empty();  // a group of options has none
}

std::vector<const CLI::App*> subcommandsOf(const CLI::App& command) {
    return command.get_subcommands([](const CLI::App* below) { return isSubcommand(below); });
}

// As it is typed: "utiliactl reports".
std::string lineOf(const CLI::App& command) {
    const CLI::App* const parent = command.get_parent();
    return (parent ? lineOf(*parent) + " " : "") + command.get_name();
}

// The innermost command of those that were typed.
const CLI::App& typedCommand(const CLI::App& program) {
    const auto typed = program.get_subcommands();
    const auto found = std::find_if(typed.begin(), typed.end(), isSubcommand);
    return found == typed.end() ? program : typedCommand(**found);
}

std::string messageOf(const CLI::App* program, const CLI::Error& error) {
    const CLI::App& command = typedCommand(*program);
    const std::string line = lineOf(command);
    const std::vector<std::string> unknown = command.remaining();
    std::string reason = error.what();
    if (!unknown.empty() && !subcommandsOf(command).empty()) {
        reason = inQuotes(unknown[0]) +
                 (unknown[0].starts_with('-') ? " is no option of " : " is no subcommand of ") +
                 inQuotes(line);
    }
    return "utiliactl: " + reason + "\nRun " + inQuotes(line + " --help") + " for more.\n";
}

void addHints(CLI::App& command) {
    constexpr const char* kExitStatus =
        "Exit status: 0 done, 1 it could not be done (the reason is on standard error), "
        "2 wrong usage.";
    std::string footer = command.get_footer();
    if (!footer.empty()) footer += "\n\n";
    if (!subcommandsOf(command).empty())
        footer += inQuotes(lineOf(command) + " SUBCOMMAND --help") + " tells more about each.\n\n";
    for (CLI::App* const below : command.get_subcommands(isSubcommand)) addHints(*below);
    command.footer(footer + kExitStatus);
}

}  // namespace

ControlProgram::ControlProgram()
    : options_("Looks into what the agent and its tools share, and changes what a user may change.",
               "utiliactl") {
    options_.set_version_flag("--version", "utiliactl " UTILIA_VERSION);
    options_.require_subcommand(1);
    options_.failure_message(messageOf);
    for (auto& command : allCommands()) {
        const CLI::App* const declared = command->declare(options_);
        commands_.push_back({std::move(command), declared});
    }
}

void ControlProgram::addHintsToHelp() { addHints(options_); }

Command* ControlProgram::chosenCommand() const {
    for (const Declared& declared : commands_) {
        if (declared.options->parsed()) return declared.command.get();
    }
    return nullptr;
}

}  // namespace utilia::control
