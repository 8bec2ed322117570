#include "Applications/utiliactl/ReportingCommand.h"

#include <cerrno>
#include <optional>
#include <ostream>
#include <string>

#include "Applications/Reporting/NextUpload.h"
#include "Applications/utiliactl/JsonText.h"
#include "Common/Platform/UserDefaults.h"
#include "Common/UtiliaCommon/AdminSettings/KAVPathHelper.h"
#include "Common/UtiliaCommon/CEP/CEPLog.h"
#include "Common/UtiliaCommon/CEP/EventLog.h"
#include "Common/UtiliaCommon/CEP/ReportFolder.h"
#include "Common/UtiliaCommon/CEP/ReportUpload.h"
#include "Common/UtiliaCommon/ToolDataProvider/PortProtocol.h"

namespace utilia::control {
namespace {

constexpr std::size_t kMaximumDocument = 64u << 20;

struct State {
    bool isDisabledByUser = false;
    bool isLastUploadPending = false;
    std::optional<Date> nextUpload;
};

State storedState() {
    const auto preferences = platform::UserDefaults::initWithDomain(kAgentBundleIdentifier);
    State state;
    state.isDisabledByUser = preferences->boolForKey(kCEPDisabledKey);
    state.isLastUploadPending =
        state.isDisabledByUser && !preferences->boolForKey(kDisabledCEPSentKey);
    const auto date = preferences->objectForKey(kCEPSyncDateKey);
    if (date && date->date()) state.nextUpload = *date->date();
    return state;
}

std::string administratorsSwitch() {
    return "the administrator has switched usage reporting off for this machine (" +
           KAVPathHelper::filePath() + ")";
}

// One line on what is recorded and sent, for people.
std::string summary(const State& state) {
    if (CEPLog::sharedInstance().isDisabledByAdministrator())
        return "Usage reporting is off: " + administratorsSwitch() + ".";
    if (!state.isDisabledByUser) return "Usage reporting is on.";
    if (!state.isLastUploadPending || !isReportUploadBuilt()) return "Usage reporting is off.";
    return "Usage reporting is off. What was recorded until then is sent once more when the agent "
           "next starts.";
}

Error notStored() {
    // What is logged on the way says why.
    return Error::utilia(UtiliaErrorCode::Unavailable, "the switch cannot be stored");
}

}  // namespace

CLI::App* ReportingCommand::declare(CLI::App& program) {
    CLI::App* const command =
        program.add_subcommand("reporting", "Switches usage reporting, and shows what it sends.");
    command->require_subcommand(1);
    CLI::App* const status =
        command->add_subcommand("status", "Tells whether usage reporting is on, and by whom not.");
    status->add_flag("--json", json_, "Answer as JSON");
    status->callback([this] { chosen_ = &ReportingCommand::status; });
    CLI::App* const on = command->add_subcommand("on", "Switches usage reporting on.");
    on->callback([this] { chosen_ = &ReportingCommand::on; });
    CLI::App* const off = command->add_subcommand("off", "Switches usage reporting off.");
    off->footer("Nothing is recorded from then on, except that a permanent tool that runs on still "
                "notes each week that it does. What was recorded until then is sent once more.");
    off->callback([this] { chosen_ = &ReportingCommand::off; });
    CLI::App* const preview = command->add_subcommand(
        "preview", "Prints the report documents that the next upload would send.");
    preview->footer("Nothing is sent, and nothing is taken away.");
    preview->add_flag("--json", json_, "Answer as JSON");
    preview->callback([this] { chosen_ = &ReportingCommand::preview; });
    return command;
}

Result<void> ReportingCommand::run(std::ostream& out) { return (this->*chosen_)(out); }

Result<void> ReportingCommand::status(std::ostream& out) const {
    const CEPLog& log = CEPLog::sharedInstance();
    const State state = storedState();
    if (json_) {
        out << textOfJson(
            Json{{"enabled", !log.isCEPDisabled()},
                 {"disabledByUser", state.isDisabledByUser},
                 {"disabledByAdministrator", log.isDisabledByAdministrator()},
                 {"lastUploadPending", state.isLastUploadPending},
                 {"nextUpload", state.nextUpload ? Json(dateText(*state.nextUpload)) : Json()},
                 {"endpoint", isReportUploadBuilt() ? Json(reportUploadEndpoint()) : Json()},
                 {"log", CEPLogPath()},
                 {"reports", reportFolder()}});
        return {};
    }
    out << summary(state) << '\n';
    if (!isReportUploadBuilt()) {
        out << "This build of the product never sends anything.\n";
    } else {
        out << "Sent to:      " << reportUploadEndpoint() << '\n'
            << "Next upload:  "
            << (log.isCEPDisabled() ? "none while usage reporting is off"
                : state.nextUpload  ? dateText(*state.nextUpload)
                                    : "a week after the agent's first start")
            << '\n';
    }
    out << "Recorded in:  " << CEPLogPath() << '\n' << "Reports in:   " << reportFolder() << '\n';
    return {};
}

Result<void> ReportingCommand::on(std::ostream& out) const {
    if (storedState().isDisabledByUser) {
        CEPLog::sharedInstance().enableCEP();
        if (storedState().isDisabledByUser) return notStored();
    }
    out << summary(storedState()) << '\n';
    return {};
}

Result<void> ReportingCommand::off(std::ostream& out) const {
    // Another switching off would have the last upload made again.
    if (!storedState().isDisabledByUser) {
        CEPLog::sharedInstance().disableCEP();
        if (!storedState().isDisabledByUser) return notStored();
    }
    out << summary(storedState()) << '\n';
    return {};
}

Result<void> ReportingCommand::preview(std::ostream& out) const {
    const CEPLog& log = CEPLog::sharedInstance();
    const auto next = reporting::nextUpload();
    if (!next) return next.error();
    Json all = Json::array();
    std::string forPeople;
    for (const reporting::NextReport& report : next->reports) {
        const auto document = report.read(kMaximumDocument);
        if (!document && document.error().isPosix(ENOENT)) continue;  // accepted in the meantime
        if (!document) return document.error();
        if (json_) {
            all.push_back(Json{{"report", report.path.empty() ? Json() : Json(report.path)},
                               {"document", *document}});
        } else {
            forPeople += "==> " +
                         (report.path.empty() ? "collected by the next upload" : report.path) +
                         " <==\n" + *document;
        }
    }
    if (json_) {
        out << textOfJson(all);
        return {};
    }
    if (log.isCEPDisabled() || !isReportUploadBuilt()) out << summary(storedState()) << '\n';
    if (next->isFull)
        out << "As many reports wait as there can be: the next upload throws away what is recorded "
               "now.\n";
    out << (forPeople.empty() && !next->isFull ? "There is nothing to send.\n" : forPeople);
    return {};
}

}  // namespace utilia::control
