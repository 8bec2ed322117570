#pragma once

#include "Applications/utiliactl/Command.h"

namespace utilia::control {

// utiliactl doctor: looks at everything that the product needs in this session, and says what to do.
class DoctorCommand final : public Command {
public:
    CLI::App* declare(CLI::App& program) override;
    Result<void> run(std::ostream& out) override;
    bool hasFoundErrors() const override { return hasFoundErrors_; }

private:
    bool json_ = false;
    bool hasFoundErrors_ = false;
};

}  // namespace utilia::control
