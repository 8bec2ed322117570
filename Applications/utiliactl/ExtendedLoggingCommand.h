#pragma once

#include <string>

#include "Applications/utiliactl/Command.h"

namespace utilia::control {

// utiliactl extended-logging: whether the product writes verbose log lines.
class ExtendedLoggingCommand final : public Command {
public:
    CLI::App* declare(CLI::App& program) override;
    Result<void> run(std::ostream& out) override;

private:
    std::string wish_;
};

}  // namespace utilia::control
