#pragma once

#include <string>

#include "Applications/utiliactl/Command.h"

namespace utilia::control {

// utiliactl resources: the copies of resources that applications share.
class ResourcesCommand final : public Command {
public:
    CLI::App* declare(CLI::App& program) override;
    Result<void> run(std::ostream& out) override;

private:
    Result<void> list(std::ostream& out) const;
    Result<void> path(std::ostream& out) const;
    Result<void> version(std::ostream& out) const;
    Result<void> install(std::ostream& out) const;

    Result<void> (ResourcesCommand::*chosen_)(std::ostream& out) const = nullptr;
    std::string name_;
    std::string bundle_;  // a path or an identifier
    std::string file_;
    std::string versionText_;
    bool json_ = false;
    bool isExecutable_ = false;
    bool keepsFile_ = false;
};

}  // namespace utilia::control
