#include "Applications/utiliactl/ControlProgram.h"

#include "Applications/utiliactl/AdminCommand.h"
#include "Applications/utiliactl/DescriptionsCommand.h"
#include "Applications/utiliactl/DoctorCommand.h"
#include "Applications/utiliactl/EventsCommand.h"
#include "Applications/utiliactl/ExtendedLoggingCommand.h"
#include "Applications/utiliactl/FetchCommand.h"
#include "Applications/utiliactl/ImageCommand.h"
#include "Applications/utiliactl/LoginCommand.h"
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

}  // namespace

ControlProgram::ControlProgram()
    : options_("Looks into what the agent and its tools share, and changes what a user may change.",
               "utiliactl") {
    options_.set_version_flag("--version", "utiliactl " UTILIA_VERSION);
    options_.require_subcommand(1);
    options_.failure_message([](const CLI::App*, const CLI::Error& error) {
        return std::string("utiliactl: ") + error.what() + "\nRun \"utiliactl --help\" for more.\n";
    });
    options_.footer(
        "\"utiliactl SUBCOMMAND --help\" tells more about each of them.\n\nExit status: "
        "0 done, 1 it could not be done (the reason is on standard error), "
        "2 wrong usage.");
    for (auto& command : allCommands()) {
        const CLI::App* const declared = command->declare(options_);
        commands_.push_back({std::move(command), declared});
    }
}

Command* ControlProgram::chosenCommand() const {
    for (const Declared& declared : commands_) {
        if (declared.options->parsed()) return declared.command.get();
    }
    return nullptr;
}

}  // namespace utilia::control
