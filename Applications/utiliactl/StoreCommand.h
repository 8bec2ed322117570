#pragma once

#include <string>

#include "Applications/utiliactl/Command.h"

namespace utilia::control {

// utiliactl store dump, utiliactl store get: the suite that agent and tools share.
class StoreCommand final : public Command {
public:
    CLI::App* declare(CLI::App& program) override;
    Result<void> run(std::ostream& out) override;

private:
    CLI::App* get_ = nullptr;
    std::string key_;
    bool json_ = false;
};

}  // namespace utilia::control
