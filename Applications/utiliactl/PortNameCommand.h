#pragma once

#include <optional>
#include <string>

#include "Applications/utiliactl/Command.h"

namespace utilia::control {

// utiliactl port-name: the name of a tool's port, from where the tool lies.
class PortNameCommand final : public Command {
public:
    CLI::App* declare(CLI::App& program) override;
    Result<void> run(std::ostream& out) override;

private:
    std::string bundlePath_;
    std::optional<std::string> canonicalName_;
};

}  // namespace utilia::control
