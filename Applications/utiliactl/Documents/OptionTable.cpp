#include "Applications/utiliactl/Documents/OptionTable.h"

#include <algorithm>
#include <string_view>

#include <CLI/CLI.hpp>

namespace utilia::control {
namespace {

bool speaksOfAFile(std::string_view placeholder) {
    constexpr std::string_view kWords[] = {"FILE", "PATH", "INPUT", "OUTPUT", "FOLDER"};
    return std::any_of(std::begin(kWords), std::end(kWords), [&](std::string_view word) {
        return placeholder.find(word) != std::string_view::npos;
    });
}

// "TEXT:{on,off,status}" has three.
std::vector<std::string> choicesOf(std::string_view type) {
    const std::size_t open = type.find(":{");
    if (open == std::string_view::npos || type.back() != '}') return {};
    std::string_view rest = type.substr(open + 2, type.size() - open - 3);
    std::vector<std::string> choices;
    while (!rest.empty()) {
        const std::size_t comma = std::min(rest.find(','), rest.size());
        choices.emplace_back(rest.substr(0, comma));
        rest.remove_prefix(std::min(comma + 1, rest.size()));
    }
    return choices;
}

OptionRow rowOf(const CLI::Option& option) {
    OptionRow row;
    row.description = option.get_description();
    row.isRequired = option.get_required();
    row.isOperand = option.get_positional();
    const std::string type = option.get_type_name();
    if (row.isOperand) {
        row.names.push_back(option.get_name(true));
    } else {
        for (const auto& name : option.get_snames()) row.names.push_back("-" + name);
        for (const auto& name : option.get_lnames()) row.names.push_back("--" + name);
        if (option.get_items_expected_max() > 0) row.placeholder = type.substr(0, type.find(':'));
    }
    row.choices = choicesOf(type);
    if (!row.choices.empty()) {
        row.value = OptionRow::Value::Choice;
    } else if (row.isOperand || !row.placeholder.empty()) {
        row.value = speaksOfAFile(row.isOperand ? row.names.front() : row.placeholder)
                        ? OptionRow::Value::File
                        : OptionRow::Value::Text;
    }
    return row;
}

CommandRow rowOf(const CLI::App& app, const std::string& parentPath,
                 const std::string& parentNotes) {
    CommandRow row;
    row.name = app.get_name();
    row.path = parentPath.empty() ? row.name : parentPath + " " + row.name;
    row.description = app.get_description();
    const std::string notes = app.get_footer();
    if (notes != parentNotes) row.notes = notes;
    // A group of options looks like a command without a name.
    const auto all = [](const auto*) { return true; };
    for (const CLI::Option* const option : app.get_options(all)) {
        OptionRow made = rowOf(*option);
        (made.isOperand ? row.operands : row.options).push_back(std::move(made));
    }
    for (const CLI::App* const below : app.get_subcommands(all)) {
        CommandRow made = rowOf(*below, row.path, notes);
        if (!made.name.empty()) {
            row.commands.push_back(std::move(made));
            continue;
        }
        std::move(made.options.begin(), made.options.end(), std::back_inserter(row.options));
        std::move(made.operands.begin(), made.operands.end(), std::back_inserter(row.operands));
    }
    return row;
}

}  // namespace

CommandRow optionTable(const CLI::App& program) { return rowOf(program, "", ""); }

}  // namespace utilia::control
