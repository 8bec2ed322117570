#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Applications/utiliactl/Command.h"
#include "Common/Platform/ExportProgress.h"

namespace utilia::control {

// utiliactl image: writes an image in another format, or as the pages of a PDF document.
//
// Until the output is about to be written, an interrupt ends the program at once and leaves no
// trace; from then on the program is not to be interrupted.
class ImageCommand final : public Command {
public:
    CLI::App* declare(CLI::App& program) override;
    Result<void> run(std::ostream& out) override;

private:
    void checkTogether() const;
    bool isPDF() const;

    std::string input_;
    std::string output_;
    std::string type_;
    std::optional<std::uint32_t> pageHeight_;
};

}  // namespace utilia::control
