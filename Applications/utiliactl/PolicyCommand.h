#pragma once

#include <string>

#include "Applications/utiliactl/Command.h"

namespace utilia::control {

// utiliactl policy: which tools may run on this machine, and what says so.
class PolicyCommand final : public Command {
public:
    CLI::App* declare(CLI::App& program) override;
    Result<void> run(std::ostream& out) override;

private:
    CLI::Option* toolOption_ = nullptr;
    std::string tool_;
    bool json_ = false;
};

}  // namespace utilia::control
