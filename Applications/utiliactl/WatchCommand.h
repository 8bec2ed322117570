#pragma once

#include "Applications/utiliactl/Command.h"

namespace utilia::control {

// utiliactl watch: follows what the agent publishes on the session's bus, until it is interrupted.
class WatchCommand final : public Command {
public:
    CLI::App* declare(CLI::App& program) override;
    // Writes to standard output as things happen, and nothing to `out`. Returns with an error when
    // there is no bus, when the bus goes away, and when nobody reads the output any more.
    Result<void> run(std::ostream& out) override;

private:
    bool json_ = false;
};

}  // namespace utilia::control
