#pragma once

#include <string>

#include "Applications/utiliactl/Command.h"

namespace utilia::control {

// utiliactl login: shows and changes the list of tools that are started at login.
class LoginCommand final : public Command {
public:
    CLI::App* declare(CLI::App& program) override;
    Result<void> run(std::ostream& out) override;

private:
    Result<void> list(std::ostream& out) const;
    Result<void> add(std::ostream& out) const;
    Result<void> remove(std::ostream& out) const;

    bool json_ = false;
    std::string tool_;
    Result<void> (LoginCommand::*chosen_)(std::ostream& out) const = nullptr;
};

}  // namespace utilia::control
