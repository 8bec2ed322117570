#pragma once

#include <string>

#include "Applications/utiliactl/Command.h"

namespace utilia::control {

// utiliactl schedule: which tools are to be started, and when; and changing that, as the agent does.
class ScheduleCommand final : public Command {
public:
    CLI::App* declare(CLI::App& program) override;
    Result<void> run(std::ostream& out) override;

private:
    Result<void> list(std::ostream& out) const;
    Result<void> add(std::ostream& out) const;
    Result<void> cancel(std::ostream& out) const;

    Result<void> (ScheduleCommand::*chosen_)(std::ostream& out) const = nullptr;
    std::string date_;
    std::string tool_;
    std::string name_;
    bool json_ = false;
};

}  // namespace utilia::control
