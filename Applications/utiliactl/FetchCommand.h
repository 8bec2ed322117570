#pragma once

#include <string>

#include "Applications/utiliactl/Command.h"

namespace utilia::control {

// utiliactl fetch: loads a web resource as the product does.
class FetchCommand final : public Command {
public:
    CLI::App* declare(CLI::App& program) override;
    Result<void> run(std::ostream& out) override;

private:
    std::string url_;
    double timeout_ = 60;
    std::string output_;
    bool json_ = false;
};

}  // namespace utilia::control
