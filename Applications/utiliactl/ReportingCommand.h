#pragma once

#include "Applications/utiliactl/Command.h"

namespace utilia::control {

// utiliactl reporting: the user's switch, and what the next upload would send.
class ReportingCommand final : public Command {
public:
    CLI::App* declare(CLI::App& program) override;
    Result<void> run(std::ostream& out) override;

private:
    Result<void> status(std::ostream& out) const;
    Result<void> on(std::ostream& out) const;
    Result<void> off(std::ostream& out) const;
    Result<void> preview(std::ostream& out) const;

    Result<void> (ReportingCommand::*chosen_)(std::ostream& out) const = nullptr;
    bool json_ = false;
};

}  // namespace utilia::control
