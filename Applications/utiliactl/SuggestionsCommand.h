#pragma once

#include <string>

#include "Applications/utiliactl/Command.h"

namespace utilia::control {

// utiliactl suggestions: which tools have asked the agent not to suggest any.
class SuggestionsCommand final : public Command {
public:
    CLI::App* declare(CLI::App& program) override;
    Result<void> run(std::ostream& out) override;

private:
    Result<void> pause(std::ostream& out) const;
    Result<void> resume(std::ostream& out) const;
    Result<void> status(std::ostream& out) const;

    Result<void> (SuggestionsCommand::*chosen_)(std::ostream& out) const = nullptr;
    std::string tool_;
    bool json_ = false;
};

}  // namespace utilia::control
