#include "Applications/utiliactl/DoctorCommand.h"

#include <algorithm>
#include <ostream>
#include <sstream>

#include "Applications/utiliactl/Doctor/Diagnosis.h"
#include "Applications/utiliactl/JsonText.h"
#include "Applications/utiliactl/PlainText.h"

namespace utilia::control {
namespace {

constexpr std::size_t kWidth = 80;

const char* nameOf(Diagnosis::Severity severity) {
    switch (severity) {
    case Diagnosis::Severity::Good:
        return "ok";
    case Diagnosis::Severity::Notice:
        return "notice";
    case Diagnosis::Severity::Warning:
        return "warning";
    case Diagnosis::Severity::Error:
        break;
    }
    return "error";
}

Diagnoses examine() {
    Diagnoses all;
    for (const auto check :
         {checkSession, checkRuntime, checkStore, checkLogin, checkPolicy, checkInstallation}) {
        const Diagnoses found = check();
        all.insert(all.end(), found.begin(), found.end());
    }
    return all;
}

// The text in lines of at most 80 columns, each after the indent; the first line is begun already.
void writeFolded(std::ostream& out, const std::string& text, std::size_t indent) {
    std::istringstream words(text);
    std::size_t column = indent;
    for (std::string word; words >> word;) {
        if (column > indent && column + 1 + word.size() > kWidth) {
            out << '\n' << std::string(indent, ' ');
            column = indent;
        } else if (column > indent) {
            out << ' ';
            ++column;
        }
        out << word;
        column += word.size();
    }
    out << '\n';
}

void writeForPeople(std::ostream& out, const Diagnoses& found) {
    constexpr std::size_t kSeverityWidth = 9;
    std::size_t checkWidth = 0;
    for (const auto& diagnosis : found)
        checkWidth = std::max(checkWidth, diagnosis.check.size() + 2);
    const std::size_t indent = kSeverityWidth + checkWidth;
    for (const auto& diagnosis : found) {
        std::string head = nameOf(diagnosis.severity);
        head.resize(kSeverityWidth, ' ');
        head += diagnosis.check;
        head.resize(indent, ' ');
        // What names a path is not folded, so that it can be copied.
        out << head << harmless(diagnosis.message) << '\n';
        if (diagnosis.advice.empty()) continue;
        out << std::string(indent, ' ');
        writeFolded(out, harmless(diagnosis.advice), indent);
    }
    const auto count = std::count_if(found.begin(), found.end(), [](const Diagnosis& diagnosis) {
        return diagnosis.severity >= Diagnosis::Severity::Warning;
    });
    out << (count == 0 ? "\nNothing needs to be done.\n" : "");
}

}  // namespace

CLI::App* DoctorCommand::declare(CLI::App& program) {
    CLI::App* const command = program.add_subcommand(
        "doctor", "Checks what agent and tools need in this session, and says what to do.");
    command->add_flag("--json", json_, "Answer as JSON");
    command->footer(
        "Changes nothing in the home folder. The exit status is 1 when something does not work.");
    return command;
}

Result<void> DoctorCommand::run(std::ostream& out) {
    const Diagnoses found = examine();
    hasFoundErrors_ = std::any_of(found.begin(), found.end(), [](const Diagnosis& diagnosis) {
        return diagnosis.severity == Diagnosis::Severity::Error;
    });
    if (!json_) {
        writeForPeople(out, found);
        return {};
    }
    Json list = Json::array();
    for (const auto& diagnosis : found) {
        list.push_back(
            {{"check", diagnosis.check},
             {"severity", nameOf(diagnosis.severity)},
             {"message", diagnosis.message},
             {"advice", diagnosis.advice.empty() ? Json(nullptr) : Json(diagnosis.advice)}});
    }
    out << textOfJson({{"healthy", !hasFoundErrors_}, {"findings", std::move(list)}});
    return {};
}

}  // namespace utilia::control
