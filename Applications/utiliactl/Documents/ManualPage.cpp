#include "Applications/utiliactl/Documents/ManualPage.h"

#include <sstream>

#include "Common/UtiliaCommon/AdminSettings/KAVPathHelper.h"

namespace utilia::control {
namespace {

// As troff prints it to the letter, wherever in a line it stands.
std::string literal(std::string_view text) {
    std::string out;
    bool isAtLineStart = true;
    for (const char c : text) {
        if (isAtLineStart && (c == '.' || c == '\'')) out += "\\&";
        isAtLineStart = c == '\n';
        switch (c) {
        case '\\':
            out += "\\e";
            break;
        case '-':
            out += "\\-";
            break;
        case '\'':
            out += "\\(aq";
            break;
        case '"':
            out += "\\(dq";
            break;
        case '`':
            out += "\\(ga";
            break;
        case '^':
            out += "\\(ha";
            break;
        case '~':
            out += "\\(ti";
            break;
        default:
            out += c;
        }
    }
    return out;
}

std::string bold(std::string_view text) { return "\\fB" + literal(text) + "\\fR"; }
std::string italic(std::string_view text) { return "\\fI" + literal(text) + "\\fR"; }

std::string alternatives(const std::vector<std::string>& choices) {
    std::string out;
    for (const auto& choice : choices) out += (out.empty() ? "" : "|") + bold(choice);
    return out;
}

std::string valueOf(const OptionRow& row) {
    if (row.value == OptionRow::Value::Choice) return alternatives(row.choices);
    return italic(row.isOperand ? row.names.front() : row.placeholder);
}

std::string namesOf(const OptionRow& row) {
    if (row.isOperand) return valueOf(row);
    std::string out;
    for (const auto& name : row.names) out += (out.empty() ? "" : ", ") + bold(name);
    return row.value == OptionRow::Value::None ? out : out + " " + valueOf(row);
}

// "[--json] DATE [NAME]"; help stands in no usage line.
std::string usage(const CommandRow& command) {
    std::string out;
    for (const auto& option : command.options) {
        const std::string& name = option.names.back();
        if (name == "--help" || name == "--version") continue;
        const std::string shown = option.value == OptionRow::Value::None
                                      ? bold(name)
                                      : bold(name) + " " + valueOf(option);
        out += option.isRequired ? " " + shown : " [" + shown + "]";
    }
    for (const auto& operand : command.operands)
        out += operand.isRequired ? " " + valueOf(operand) : " [" + valueOf(operand) + "]";
    return out;
}

void writeRows(std::ostream& out, const std::vector<OptionRow>& rows) {
    for (const auto& row : rows) {
        if (row.names.back() == "--help") continue;
        out << ".TP\n" << namesOf(row) << '\n' << literal(row.description) << '\n';
    }
}

// Indented lines of the help, which are examples and tables, stay lines.
void writeNotes(std::ostream& out, const std::string& notes) {
    if (notes.empty()) return;
    out << ".PP\n";
    bool isTable = false;
    std::istringstream lines(notes);
    for (std::string line; std::getline(lines, line);) {
        const bool isIndented = line.starts_with(' ');
        if (isIndented != isTable) out << (isIndented ? ".nf\n" : ".fi\n.PP\n");
        isTable = isIndented;
        out << (line.empty() ? ".PP" : literal(line)) << '\n';
    }
    if (isTable) out << ".fi\n";
}

void writeCommand(std::ostream& out, const CommandRow& command) {
    if (command.commands.empty()) {
        const std::size_t afterProgram = command.path.find(' ') + 1;
        out << ".SS " << bold(command.path.substr(afterProgram)) << usage(command) << '\n'
            << literal(command.description) << '\n';
        writeRows(out, command.operands);
        writeRows(out, command.options);
        writeNotes(out, command.notes);
    }
    for (const auto& below : command.commands) writeCommand(out, below);
}

}  // namespace

std::string manualPage(const CommandRow& program, std::string_view version) {
    std::ostringstream out;
    out << ".\\\" Made from the program's own options.\n"
        << ".TH UTILIACTL 1 \"\" \"" << program.name << " " << literal(version)
        << "\" \"User Commands\"\n"
        << ".nh\n"  // what is to be typed is never divided
        << ".SH NAME\n"
        << program.name << " \\- look into what the agent and its tools share\n"
        << ".SH SYNOPSIS\n"
        << bold(program.name) << " " << italic("COMMAND") << " [" << italic("ARGUMENTS") << "]\n"
        << ".br\n"
        << bold(program.name) << " [" << italic("COMMAND") << "] " << bold("--help") << "\n"
        << ".SH DESCRIPTION\n"
        << literal(program.description) << '\n';
    out << ".SH OPTIONS\n";
    writeRows(out, program.options);
    out << ".TP\n" << bold("-h") << ", " << bold("--help") << "\nHelp, also of each command.\n";
    out << ".SH COMMANDS\n";
    for (const auto& command : program.commands) writeCommand(out, command);
    out << ".SH EXIT STATUS\n"
        << ".TP\n\\fB0\\fR\nDone.\n"
        << ".TP\n\\fB1\\fR\nIt could not be done, or a check found errors; the reason is on "
           "standard "
           "error or in the answer.\n"
        << ".TP\n\\fB2\\fR\nWrong usage.\n"
        << ".SH FILES\n"
        << ".TP\n"
        << italic(KAVPathHelper::filePath())
        << "\nThe administrator\\(aqs settings of this machine.\n"
        << ".TP\n"
        << italic("~/.local/share/korvane-utilia")
        << "\nWhat agent and tools share, below XDG_DATA_HOME when that is set.\n"
        << ".TP\n"
        << italic("~/.config/korvane-utilia")
        << "\nPreferences, below XDG_CONFIG_HOME when that is set.\n"
        << ".SH SEE ALSO\n"
        << bold("journalctl") << "(1)\n";
    return out.str();
}

}  // namespace utilia::control
