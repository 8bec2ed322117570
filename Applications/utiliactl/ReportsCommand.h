#pragma once

#include "Applications/utiliactl/Command.h"

namespace utilia::control {

// utiliactl reports: the reports that wait for their upload, and those that were sent.
class ReportsCommand final : public Command {
public:
    CLI::App* declare(CLI::App& program) override;
    Result<void> run(std::ostream& out) override;
    bool hasFoundErrors() const override { return isAnyLeft_; }

private:
    Result<void> list(std::ostream& out);
    Result<void> send(std::ostream& out);
    Result<void> sent(std::ostream& out);

    Result<void> (ReportsCommand::*chosen_)(std::ostream& out) = nullptr;
    double seconds_ = 60;
    bool json_ = false;
    bool isAnyLeft_ = false;
};

}  // namespace utilia::control
