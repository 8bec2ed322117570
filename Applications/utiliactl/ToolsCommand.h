#pragma once

#include "Applications/utiliactl/Command.h"

namespace utilia::control {

// utiliactl tools: what tools left behind for the agent to show.
class ToolsCommand final : public Command {
public:
    CLI::App* declare(CLI::App& program) override;
    Result<void> run(std::ostream& out) override;

private:
    bool json_ = false;
};

}  // namespace utilia::control
