#include "Applications/utiliactl/Documents/CompletionScripts.h"

#include <algorithm>
#include <functional>
#include <sstream>
#include <string_view>

namespace utilia::control {
namespace {

constexpr std::string_view kMade = "Made from the program's own options.";

// As one word of a shell; fish takes a backslash where the others end the quotes.
std::string quoted(std::string_view text, std::string_view quote = "'\\''") {
    std::string out = "'";
    for (const char c : text) out += c == '\'' ? std::string(quote) : std::string(1, c);
    return out + "'";
}

std::string joined(const std::vector<std::string>& words, std::string_view between = " ") {
    std::string out;
    for (const auto& word : words) {
        if (!out.empty()) out += between;
        out += word;
    }
    return out;
}

std::vector<std::string> namesOf(const std::vector<CommandRow>& commands) {
    std::vector<std::string> names;
    std::transform(commands.begin(), commands.end(), std::back_inserter(names),
                   [](const CommandRow& command) { return command.name; });
    return names;
}

std::vector<std::string> namesOf(const std::vector<OptionRow>& options) {
    std::vector<std::string> names;
    for (const auto& option : options)
        names.insert(names.end(), option.names.begin(), option.names.end());
    return names;
}

void forEachCommand(const CommandRow& program,
                    const std::function<void(const CommandRow&)>& visit) {
    visit(program);
    for (const auto& command : program.commands) forEachCommand(command, visit);
}

// ---- bash

// "text", "file" or the words to choose from; empty for none.
std::string bashValue(const OptionRow& row) {
    switch (row.value) {
    case OptionRow::Value::None:
        return "";
    case OptionRow::Value::Text:
        return "text";
    case OptionRow::Value::File:
        return "file";
    case OptionRow::Value::Choice:
        return "choice " + joined(row.choices);
    }
    return "";
}

void writeBashTable(std::ostream& out, const CommandRow& program) {
    forEachCommand(program, [&out](const CommandRow& command) {
        out << "    " << quoted(command.path) << ")\n";
        if (!command.commands.empty())
            out << "        commands=" << quoted(joined(namesOf(command.commands))) << '\n';
        out << "        options=" << quoted(joined(namesOf(command.options))) << '\n';
        if (!command.operands.empty()) {
            out << "        operands=(";
            for (const auto& operand : command.operands) out << quoted(bashValue(operand)) << ' ';
            out << ")\n";
        }
        out << "        ;;\n";
    });
}

void writeBashValues(std::ostream& out, const CommandRow& program) {
    forEachCommand(program, [&out](const CommandRow& command) {
        for (const auto& option : command.options) {
            if (option.value == OptionRow::Value::None) continue;
            std::vector<std::string> patterns;
            for (const auto& name : option.names)
                patterns.push_back(quoted(command.path + " " + name));
            out << "    " << joined(patterns, " | ") << ") value=" << quoted(bashValue(option))
                << " ;;\n";
        }
    });
}

constexpr std::string_view kBashEnd = R"(
_utiliactl_offer() {
    local word=$2
    case $1 in
    file) mapfile -t COMPREPLY < <(compgen -f -- "$word") && compopt -o filenames 2>/dev/null ;;
    choice*) mapfile -t COMPREPLY < <(compgen -W "${1#choice }" -- "$word") ;;
    esac
}

_utiliactl() {
    local word=${COMP_WORDS[COMP_CWORD]} path=utiliactl count=0 i
    local commands options operands value
    COMPREPLY=()
    _utiliactl_table "$path"
    for ((i = 1; i < COMP_CWORD; i++)); do
        if [[ ${COMP_WORDS[i]} == -* ]]; then
            _utiliactl_value "$path ${COMP_WORDS[i]}"
            [[ -z $value ]] || ((++i))
        elif [[ " $commands " == *" ${COMP_WORDS[i]} "* ]]; then
            path+=" ${COMP_WORDS[i]}"
            _utiliactl_table "$path"
        else
            ((++count))
        fi
    done
    if ((i > COMP_CWORD)); then
        _utiliactl_offer "$value" "$word"
    elif [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
    elif [[ -n $commands ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$word")
    else
        _utiliactl_offer "${operands[count]:-}" "$word"
    fi
}

complete -F _utiliactl utiliactl
)";

// ---- zsh

// Within a specification of _arguments.
std::string zshText(std::string_view text) {
    std::string out;
    for (const char c : text) {
        if (c == '[' || c == ']' || c == ':' || c == '\\') out += '\\';
        out += c;
    }
    return out;
}

std::string zshAction(const OptionRow& row) {
    switch (row.value) {
    case OptionRow::Value::File:
        return "_files";
    case OptionRow::Value::Choice:
        return "(" + joined(row.choices) + ")";
    default:
        return " ";
    }
}

void writeZshOption(std::ostream& out, const OptionRow& option) {
    const std::string exclusive = "(" + joined(option.names) + ")";
    for (const auto& name : option.names) {
        std::string specification = exclusive + name + "[" + zshText(option.description) + "]";
        if (option.value != OptionRow::Value::None) {
            const std::string shown = option.placeholder.empty() ? "VALUE" : option.placeholder;
            specification += ":" + zshText(shown) + ":" + zshAction(option);
        }
        out << " \\\n        " << quoted(specification);
    }
}

std::string zshFunction(const CommandRow& command) {
    std::string name = "_" + command.path;
    std::replace(name.begin(), name.end(), ' ', '_');
    return name;
}

void writeZshFunction(std::ostream& out, const CommandRow& command) {
    out << "\n" << zshFunction(command) << "() {\n";
    if (command.commands.empty()) {
        out << "    _arguments -S";
        for (const auto& option : command.options) writeZshOption(out, option);
        for (std::size_t i = 0; i < command.operands.size(); ++i) {
            const OptionRow& operand = command.operands[i];
            out << " \\\n        "
                << quoted(std::to_string(i + 1) + (operand.isRequired ? ":" : "::") +
                          zshText(operand.names.front()) + ":" + zshAction(operand));
        }
        out << "\n}\n";
        return;
    }
    out << "    local curcontext=$curcontext state line\n"
        << "    typeset -A opt_args\n"
        << "    _arguments -C -S";
    for (const auto& option : command.options) writeZshOption(out, option);
    out << " \\\n        '1: :->command' '*:: :->arguments'\n"
        << "    case $state in\n"
        << "    command)\n"
        << "        local -a commands=(";
    for (const auto& below : command.commands)
        out << "\n            " << quoted(below.name + ":" + zshText(below.description));
    out << ")\n        _describe -t commands command commands\n        ;;\n"
        << "    arguments)\n"
        << "        case $line[1] in\n";
    for (const auto& below : command.commands)
        out << "        " << below.name << ") " << zshFunction(below) << " ;;\n";
    out << "        esac\n        ;;\n    esac\n}\n";
}

// ---- fish

std::string fishQuoted(std::string_view text) {
    std::string escaped;
    for (const char c : text) escaped += c == '\\' ? "\\\\" : std::string(1, c);
    return quoted(escaped, "\\'");
}

void writeFishCommand(std::ostream& out, const CommandRow& command) {
    const std::string start =
        "complete -c utiliactl -n " + fishQuoted("__utiliactl_is_at " + command.path);
    for (const auto& below : command.commands)
        out << start << " -a " << below.name << " -d " << fishQuoted(below.description) << '\n';
    for (const auto& option : command.options) {
        out << start;
        for (const auto& name : option.names) {
            const bool isLong = name.starts_with("--");
            out << (isLong ? " -l " : " -s ") << name.substr(isLong ? 2 : 1);
        }
        if (option.value != OptionRow::Value::None) out << " -r";
        if (option.value == OptionRow::Value::File) out << " -F";
        if (option.value == OptionRow::Value::Choice)
            out << " -a " << fishQuoted(joined(option.choices));
        out << " -d " << fishQuoted(option.description) << '\n';
    }
    for (const auto& operand : command.operands) {
        if (operand.value == OptionRow::Value::File) out << start << " -F\n";
        if (operand.value == OptionRow::Value::Choice)
            out << start << " -a " << fishQuoted(joined(operand.choices)) << '\n';
    }
}

}  // namespace

std::string bashCompletion(const CommandRow& program) {
    std::ostringstream out;
    out << "# Completion of utiliactl for bash. " << kMade << "\n\n"
        << "# What a command takes.\n"
        << "_utiliactl_table() {\n    commands= options= operands=()\n    case $1 in\n";
    writeBashTable(out, program);
    out << "    esac\n}\n\n# What follows an option; empty for a flag.\n"
        << "_utiliactl_value() {\n    value=\n    case $1 in\n";
    writeBashValues(out, program);
    out << "    esac\n}\n" << kBashEnd;
    return out.str();
}

std::string zshCompletion(const CommandRow& program) {
    std::ostringstream out;
    out << "#compdef utiliactl\n# Completion of utiliactl for zsh. " << kMade << "\n";
    forEachCommand(program, [&out](const CommandRow& command) { writeZshFunction(out, command); });
    out << "\n" << zshFunction(program) << " \"$@\"\n";
    return out.str();
}

std::string fishCompletion(const CommandRow& program) {
    std::vector<std::string> paths;
    forEachCommand(program,
                   [&paths](const CommandRow& command) { paths.push_back(quoted(command.path)); });
    std::ostringstream out;
    out << "# Completion of utiliactl for fish. " << kMade << "\n\n"
        << "# Whether the words until the cursor choose exactly this command.\n"
        << "function __utiliactl_is_at\n"
        << "    set -l path utiliactl\n"
        << "    set -l words (commandline -opc)\n"
        << "    for word in $words[2..]\n"
        << "        contains -- \"$path $word\" " << joined(paths) << "\n"
        << "        and set path \"$path $word\"\n"
        << "    end\n"
        << "    test \"$path\" = \"$argv\"\n"
        << "end\n\n"
        << "complete -c utiliactl -f\n";
    forEachCommand(program, [&out](const CommandRow& command) { writeFishCommand(out, command); });
    return out.str();
}

}  // namespace utilia::control
