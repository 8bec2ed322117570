// utiliactl-documents FOLDER: writes the manual page and the completions of utiliactl, where an
// installation has them below its data folder. A part of the build; nobody installs it.

#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

#include "Applications/utiliactl/ControlProgram.h"
#include "Applications/utiliactl/Documents/CompletionScripts.h"
#include "Applications/utiliactl/Documents/ManualPage.h"
#include "Applications/utiliactl/Documents/OptionTable.h"

namespace {

namespace fs = std::filesystem;
using namespace utilia::control;

void write(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream file(path);
    file << text;
    file.close();
    if (!file) throw std::runtime_error(path.string() + " cannot be written");
}

}  // namespace

int main(int argc, char** argv) {
    try {
        if (argc != 2) throw std::runtime_error("usage: utiliactl-documents FOLDER");
        const fs::path folder = argv[1];
        const ControlProgram program;
        const CommandRow table = optionTable(program.options());
        write(folder / "man/man1/utiliactl.1", manualPage(table, UTILIA_VERSION));
        write(folder / "bash-completion/completions/utiliactl", bashCompletion(table));
        write(folder / "zsh/site-functions/_utiliactl", zshCompletion(table));
        write(folder / "fish/vendor_completions.d/utiliactl.fish", fishCompletion(table));
        return 0;
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        return 1;
    }
}
