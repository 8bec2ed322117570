#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace utilia::control {

// One option or operand of a command, as its user sees it.
struct OptionRow {
    enum class Value { None, Text, File, Choice };

    std::vector<std::string> names;  // "-h", "--help"; for an operand one name, such as "FILE"
    std::string placeholder;         // of the value; empty for a flag and for an operand
    std::string description;
    bool isOperand = false;
    bool isRequired = false;
    Value value = Value::None;
    std::vector<std::string> choices;  // of Value::Choice
};

// A command with everything below it.
struct CommandRow {
    std::string name;         // "schedule"
    std::string path;         // "utiliactl schedule"
    std::string description;  // one sentence
    std::string notes;        // what the help adds at its end; empty when that is the parent's
    std::vector<OptionRow> options;
    std::vector<OptionRow> operands;
    std::vector<CommandRow> commands;
};

// What the program reads its arguments with, as a table: the one source of its manual page and its
// completions. A value whose placeholder speaks of a file, path, input or output is a file.
CommandRow optionTable(const CLI::App& program);

}  // namespace utilia::control
