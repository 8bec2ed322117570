#include <cerrno>
#include <cstdio>
#include <iostream>
#include <memory>
#include <sstream>
#include <vector>

#include "Applications/utiliactl/AdminCommand.h"
#include "Applications/utiliactl/DescriptionsCommand.h"
#include "Applications/utiliactl/ExtendedLoggingCommand.h"
#include "Applications/utiliactl/LoginCommand.h"
#include "Applications/utiliactl/PolicyCommand.h"
#include "Applications/utiliactl/PortNameCommand.h"
#include "Applications/utiliactl/PortsCommand.h"
#include "Applications/utiliactl/ResourcesCommand.h"
#include "Applications/utiliactl/ScheduleCommand.h"
#include "Applications/utiliactl/StoreCommand.h"
#include "Applications/utiliactl/SuggestionsCommand.h"
#include "Applications/utiliactl/ToolsCommand.h"

namespace {

using namespace utilia;
using namespace utilia::control;

// Contract: scripts depend on these.
enum class ExitStatus { Done = 0, Failed = 1, WrongUsage = 2 };

ExitStatus failed(const Error& error) {
    std::cerr << "utiliactl: " << error.description << std::endl;
    return ExitStatus::Failed;
}

ExitStatus runCommand(Command& command) {
    std::ostringstream answer;
    if (const auto done = command.run(answer); !done) return failed(done.error());
    const std::string text = answer.str();
    errno = 0;
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() ||
        std::fflush(stdout) != 0) {
        return failed(Error::posix(errno, "write", "standard output"));
    }
    return command.hasFoundErrors() ? ExitStatus::Failed : ExitStatus::Done;
}

ExitStatus runProgram(int argc, char** argv) {
    CLI::App program(
        "Looks into what the agent and its tools share, and changes what a user may change.",
        "utiliactl");
    program.set_version_flag("--version", "utiliactl " UTILIA_VERSION);
    program.require_subcommand(1);
    program.failure_message([](const CLI::App*, const CLI::Error& error) {
        return std::string("utiliactl: ") + error.what() + "\nRun \"utiliactl --help\" for more.\n";
    });
    program.footer("\"utiliactl SUBCOMMAND --help\" tells more about each of them.\n\nExit status: "
                   "0 done, 1 it could not be done (the reason is on standard error), "
                   "2 wrong usage.");

    std::vector<std::unique_ptr<Command>> commands;
    commands.push_back(std::make_unique<PortsCommand>());
    commands.push_back(std::make_unique<PortNameCommand>());
    commands.push_back(std::make_unique<StoreCommand>());
    commands.push_back(std::make_unique<ScheduleCommand>());
    commands.push_back(std::make_unique<LoginCommand>());
    commands.push_back(std::make_unique<ResourcesCommand>());
    commands.push_back(std::make_unique<ToolsCommand>());
    commands.push_back(std::make_unique<DescriptionsCommand>());
    commands.push_back(std::make_unique<SuggestionsCommand>());
    commands.push_back(std::make_unique<ExtendedLoggingCommand>());
    commands.push_back(std::make_unique<AdminCommand>());
    commands.push_back(std::make_unique<PolicyCommand>());
    std::vector<const CLI::App*> declared;
    for (const auto& command : commands) declared.push_back(command->declare(program));

    try {
        program.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        // Also how help and version are answered.
        return program.exit(error) == 0 ? ExitStatus::Done : ExitStatus::WrongUsage;
    }
    for (std::size_t i = 0; i < commands.size(); ++i) {
        if (declared[i]->parsed()) return runCommand(*commands[i]);
    }
    return ExitStatus::WrongUsage;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return static_cast<int>(runProgram(argc, argv));
    } catch (const std::exception& exception) {
        return static_cast<int>(failed({std::string(kUtiliaErrorDomain), 0, exception.what()}));
    }
}
