#pragma once

#include <memory>
#include <vector>

#include "Applications/utiliactl/Command.h"

namespace utilia::control {

// The control program's subcommands, options and help: what the program reads its arguments with,
// and what its manual page and its completions are made from.
class ControlProgram final {
public:
    ControlProgram();

    CLI::App& options() { return options_; }
    const CLI::App& options() const { return options_; }
    // What every help ends with: where there is more of it, and the exit statuses.
    void addHintsToHelp();
    // After the options have been parsed: the command that the user chose, or null.
    Command* chosenCommand() const;

private:
    struct Declared {
        std::unique_ptr<Command> command;
        const CLI::App* options;
    };

    CLI::App options_;
    std::vector<Declared> commands_;
};

}  // namespace utilia::control
