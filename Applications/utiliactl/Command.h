#pragma once

#include <iosfwd>
#include <string>

#include <CLI/CLI.hpp>

#include "Common/Foundation/Result.h"

namespace utilia::control {

// A check of an option: that something is given.
inline std::string refuseEmpty(const std::string& text) {
    return text.empty() ? "must not be empty" : "";
}

// One subcommand of the control program.
class Command {
public:
    virtual ~Command() = default;

    // Adds the subcommand with its options and help; what the user gives is kept in this object.
    // Answers what was added, so that the caller can ask whether the user chose it.
    virtual CLI::App* declare(CLI::App& program) = 0;

    // Writes the answer to `out`; nothing of it is shown when this fails.
    virtual Result<void> run(std::ostream& out) = 0;

    // Asked after a run that succeeded: whether its answer, which is shown, reports something that
    // is wrong. The program then ends as if it had failed.
    virtual bool hasFoundErrors() const { return false; }
};

}  // namespace utilia::control
