#include "Applications/utiliactl/StoreCommand.h"

#include <ostream>

#include "Applications/utiliactl/JsonText.h"
#include "Applications/utiliactl/PlainText.h"
#include "Applications/utiliactl/SharedStore.h"

namespace utilia::control {

CLI::App* StoreCommand::declare(CLI::App& program) {
    CLI::App* const command =
        program.add_subcommand("store", "Shows the store that the agent and its tools share.");
    command->require_subcommand(1);
    CLI::App* const dump = command->add_subcommand("dump", "Shows every key and value.");
    get_ = command->add_subcommand("get", "Shows the value of one key.");
    get_->add_option("KEY", key_, "A key of the store, such as Scheduler")->required();
    for (CLI::App* const each : {dump, get_}) each->add_flag("--json", json_, "Answer as JSON");
    return command;
}

Result<void> StoreCommand::run(std::ostream& out) {
    const auto content = readSharedStore();
    if (!content) return content.error();
    Value shown = *content;
    if (get_->parsed()) {
        const Value* const found = content->find(key_);
        if (!found)
            return Error::utilia(UtiliaErrorCode::NotFound,
                                 "the store has no key " + inQuotes(key_));
        shown = *found;
    }
    out << (json_ ? textOfJson(jsonFromValue(shown)) : outline(shown));
    return {};
}

}  // namespace utilia::control
