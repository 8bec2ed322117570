#include "Applications/utiliactl/PortsCommand.h"

#include <ostream>

#include "Applications/utiliactl/JsonText.h"
#include "Applications/utiliactl/PlainText.h"
#include "Common/Platform/FileManager.h"
#include "Common/Platform/Port.h"

namespace utilia::control {

using platform::PortNameServer;

CLI::App* PortsCommand::declare(CLI::App& program) {
    CLI::App* const command =
        program.add_subcommand("ports", "Lists the port names of this login.");
    command->footer(
        "A name is live while a process holds it, and stale when its last owner ended.");
    command->add_flag("--json", json_, "Answer as JSON");
    return command;
}

Result<void> PortsCommand::run(std::ostream& out) {
    if (const auto folder = platform::FileManager::findRuntimeFolder(); !folder)
        return folder.error().withContext("the runtime folder of this login cannot be used");
    Json list = Json::array();
    std::vector<std::vector<std::string>> rows;
    for (const auto& port : PortNameServer::systemDefaultPortNameServer().registrations()) {
        Json entry{{"name", port.name}, {"live", port.isLive}, {"pid", nullptr}};
        std::string owner = "-";
        if (port.processIdentifier) {
            entry["pid"] = *port.processIdentifier;
            owner = std::to_string(*port.processIdentifier);
        }
        list.push_back(std::move(entry));
        rows.push_back({port.isLive ? "live" : "stale", std::move(owner), port.name});
    }
    out << (json_ ? textOfJson(list)
                  : table({"STATE", "OWNER", "NAME"}, rows, "No port is registered."));
    return {};
}

}  // namespace utilia::control
