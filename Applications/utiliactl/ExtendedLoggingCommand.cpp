#include "Applications/utiliactl/ExtendedLoggingCommand.h"

#include <ostream>

#include "Common/Platform/UserDefaults.h"
#include "Common/UtiliaCommon/ExtendedLogging.h"
#include "Common/UtiliaCommon/ToolDataProvider/PortProtocol.h"

namespace utilia::control {

CLI::App* ExtendedLoggingCommand::declare(CLI::App& program) {
    CLI::App* const command = program.add_subcommand(
        "extended-logging", "Turns the product's verbose log lines on or off.");
    command->footer("Programs that run take notice with their next verbose line.");
    command->add_option("WISH", wish_, "on, off or status")
        ->required()
        ->check(CLI::IsMember({"on", "off", "status"}));
    return command;
}

Result<void> ExtendedLoggingCommand::run(std::ostream& out) {
    const auto preferences = platform::UserDefaults::initWithDomain(kAgentBundleIdentifier);
    if (!preferences) {
        return Error::utilia(UtiliaErrorCode::Unavailable, "the preferences of " +
                                                               std::string(kAgentBundleIdentifier) +
                                                               " cannot be used");
    }
    if (wish_ != "status") {
        preferences->setObject(wish_ == "on", kExtendedLoggingKey);
        if (!preferences->synchronize()) {
            return Error::utilia(UtiliaErrorCode::Unavailable,
                                 preferences->path() + " cannot be written");
        }
    }
    out << (preferences->boolForKey(kExtendedLoggingKey) ? "on" : "off") << '\n';
    return {};
}

}  // namespace utilia::control
