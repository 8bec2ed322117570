#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace utilia {

// What a program of the suite can be started with.
struct CommandLineUsage {
    std::string_view program;  // as it is typed
    std::string_view help;     // the whole text of --help
    std::vector<std::string_view> options = {};
    // Options of a toolkit, each with a value; the toolkit reads them itself.
    std::vector<std::string_view> toolkitOptions = {};
    std::size_t maximumOperands = 0;
};

// What it was started with. --help and --version are answered, and wrong usage is said, before
// anything is started; what the library does before main has been done by then.
struct CommandLine {
    // For main's arguments. After "--" everything is an operand.
    static CommandLine read(const CommandLineUsage& usage, int count, char** words);

    bool has(std::string_view option) const;

    std::optional<int> exitStatus = {};  // the program ends with it: 0 answered, 2 wrong usage
    std::vector<std::string> options = {};
    std::vector<std::string> operands = {};
};

// What Qt reads of a command line, as a session manager or a person may give it.
inline const std::vector<std::string_view> kQtOptions{"-display", "-platform", "-session",
                                                      "-style"};

}  // namespace utilia
