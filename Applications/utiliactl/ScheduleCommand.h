#pragma once

#include "Applications/utiliactl/Command.h"

namespace utilia::control {

// utiliactl schedule list: which tools are to be started, and when.
class ScheduleCommand final : public Command {
public:
    CLI::App* declare(CLI::App& program) override;
    Result<void> run(std::ostream& out) override;

private:
    bool json_ = false;
};

}  // namespace utilia::control
