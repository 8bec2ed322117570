#pragma once

#include "Applications/utiliactl/Command.h"

namespace utilia::control {

// utiliactl ports: the port names of this login, and who holds them.
class PortsCommand final : public Command {
public:
    CLI::App* declare(CLI::App& program) override;
    Result<void> run(std::ostream& out) override;

private:
    bool json_ = false;
};

}  // namespace utilia::control
