#pragma once

#include <string>

#include "Applications/utiliactl/Command.h"
#include "Common/Foundation/Value.h"

namespace utilia::control {

// utiliactl admin: the administrator's machine-wide settings.
class AdminCommand final : public Command {
public:
    CLI::App* declare(CLI::App& program) override;
    Result<void> run(std::ostream& out) override;
    bool hasFoundErrors() const override { return hasFoundErrors_; }

private:
    Result<void> show(std::ostream& out) const;
    Result<void> setWhiteList() const;
    Result<void> setValue() const;
    Result<Value> checkedValue() const;
    void check(std::ostream& out);

    CLI::App* show_ = nullptr;
    CLI::App* setWhiteList_ = nullptr;
    CLI::App* clearWhiteList_ = nullptr;
    CLI::App* set_ = nullptr;
    CLI::App* check_ = nullptr;
    std::string tools_;
    std::string key_;
    std::string value_;
    bool json_ = false;
    bool hasFoundErrors_ = false;
};

}  // namespace utilia::control
