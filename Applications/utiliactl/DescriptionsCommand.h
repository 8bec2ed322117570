#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Applications/utiliactl/Command.h"
#include "Common/Foundation/Value.h"

namespace utilia::control {

// utiliactl descriptions: what each version brings, in the languages that there are.
class DescriptionsCommand final : public Command {
public:
    CLI::App* declare(CLI::App& program) override;
    Result<void> run(std::ostream& out) override;

private:
    Result<void> save(std::ostream& out) const;
    Result<void> show(std::ostream& out) const;
    Result<void> remove(std::ostream& out) const;
    Result<void> replace(const std::optional<Dictionary>& texts) const;

    Result<void> (DescriptionsCommand::*chosen_)(std::ostream& out) const = nullptr;
    std::string version_;
    std::vector<std::string> texts_;  // LANGUAGE=TEXT
    std::string file_;
    std::string language_;
    bool json_ = false;
};

}  // namespace utilia::control
