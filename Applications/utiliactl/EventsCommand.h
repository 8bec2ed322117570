#pragma once

#include <string>

#include "Applications/utiliactl/Command.h"
#include "Common/Foundation/Value.h"

namespace utilia::control {

// utiliactl events path|show|log: the log of usage events.
class EventsCommand final : public Command {
public:
    CLI::App* declare(CLI::App& program) override;
    Result<void> run(std::ostream& out) override;

private:
    Result<void> path(std::ostream& out) const;
    Result<void> show(std::ostream& out) const;
    Result<void> log(std::ostream& out) const;

    Result<void> (EventsCommand::*chosen_)(std::ostream& out) const = nullptr;
    bool json_ = false;
    std::string action_;
    std::string optionsText_;
    std::string detailsText_;
    Dictionary options_;
    Dictionary details_;
};

}  // namespace utilia::control
