#include "Applications/utiliactl/ReportsCommand.h"

#include <algorithm>
#include <chrono>
#include <ostream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Applications/Reporting/SentReports.h"
#include "Applications/utiliactl/JsonText.h"
#include "Applications/utiliactl/PlainText.h"
#include "Common/Foundation/PathFunctions.h"
#include "Common/Platform/FileManager.h"
#include "Common/Platform/Task.h"
#include "Common/UtiliaCommon/CEP/CEPLog.h"
#include "Common/UtiliaCommon/CEP/ReportFolder.h"
#include "Common/UtiliaCommon/CEP/ReportUpload.h"

namespace utilia::control {
namespace {

using platform::FileManager;

constexpr auto kLook = std::chrono::milliseconds(20);

// By their paths.
Result<std::vector<std::string>> reports() {
    const std::string folder = reportFolder();
    if (FileManager::isNothingAtPath(folder)) return std::vector<std::string>();
    auto waiting = waitingReports(folder);
    if (!waiting) return waiting;
    for (std::string& report : *waiting) report = stringByAppendingPathComponent(folder, report);
    return waiting;
}

std::string_view outcomeName(reporting::SentReport::Outcome outcome) {
    switch (outcome) {
    case reporting::SentReport::Outcome::UnderWay:
        return "under way";
    case reporting::SentReport::Outcome::Accepted:
        return "accepted";
    case reporting::SentReport::Outcome::Refused:
        return "refused";
    }
    return "";
}

// Until each of them is gone or nobody is at it any more, or the time is over.
void waitForUploads(const std::set<std::string>& paths, std::chrono::duration<double> time) {
    const auto deadline = std::chrono::steady_clock::now() + time;
    const auto isUnderWay = [](const std::string& path) { return platform::Task::isLocked(path); };
    while (std::any_of(paths.begin(), paths.end(), isUnderWay) &&
           std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(kLook);
}

}  // namespace

CLI::App* ReportsCommand::declare(CLI::App& program) {
    CLI::App* const command = program.add_subcommand(
        "reports",
        "Shows the usage reports that wait for their upload or were sent, and sends them.");
    command->require_subcommand(1);
    CLI::App* const list = command->add_subcommand("list", "Lists the reports that wait.");
    list->footer("What is recorded becomes a report when it is sent; \"utiliactl reporting "
                 "preview\" shows both.");
    list->add_flag("--json", json_, "Answer as JSON");
    list->callback([this] { chosen_ = &ReportsCommand::list; });
    CLI::App* const send =
        command->add_subcommand("send", "Makes a report of what is recorded, and sends all.");
    send->footer("Tells of each report whether the server has accepted it, which removes it. Exit "
                 "status 1 when one is left. The date of the next weekly upload stays as it is.");
    send->add_option("--wait", seconds_, "Seconds to wait for the server, at most")
        ->check(CLI::Range(0.0, 3600.0))
        ->capture_default_str();
    send->add_flag("--json", json_, "Answer as JSON");
    send->callback([this] { chosen_ = &ReportsCommand::send; });
    CLI::App* const sent =
        command->add_subcommand("sent", "Lists the reports that were sent last.");
    sent->footer(
        "Copies of the last ten are kept, up to 5 MiB; the document that was sent is in the "
        "file that is named.");
    sent->add_flag("--json", json_, "Answer as JSON");
    sent->callback([this] { chosen_ = &ReportsCommand::sent; });
    return command;
}

Result<void> ReportsCommand::run(std::ostream& out) { return (this->*chosen_)(out); }

Result<void> ReportsCommand::list(std::ostream& out) {
    const auto paths = reports();
    if (!paths) return paths.error();
    Json all = Json::array();
    std::vector<std::vector<std::string>> rows;
    for (const std::string& path : *paths) {
        const auto status = FileManager::attributesOfItemAtPath(path);
        if (!status) continue;  // accepted in the meantime
        all.push_back(Json{{"report", path}, {"bytes", status->size}});
        rows.push_back({path, std::to_string(status->size)});
    }
    out << (json_ ? textOfJson(all) : table({"REPORT", "BYTES"}, rows, "No report waits."));
    return {};
}

Result<void> ReportsCommand::send(std::ostream& out) {
    if (!isReportUploadBuilt())
        return Error::utilia(UtiliaErrorCode::Unavailable, "this build never sends anything");
    CEPLog& log = CEPLog::sharedInstance();
    if (log.isCEPDisabled()) {
        return Error::utilia(UtiliaErrorCode::Refused,
                             log.isDisabledByAdministrator()
                                 ? "the administrator has switched usage reporting off for this "
                                   "machine, so that nothing is sent"
                                 : "usage reporting is off, so that nothing is sent");
    }
    log.setCepOwner(true);
    const reporting::SentReports kept;
    log.setUploadHandler([&kept](const std::vector<std::string>& paths) { kept.willSend(paths); });
    const auto begun = log.sendCEPImp(false);
    const auto waiting = reports();
    if (!waiting) return waiting.error();
    std::set<std::string> paths(begun.begin(), begun.end());
    paths.insert(waiting->begin(), waiting->end());
    waitForUploads(paths, std::chrono::duration<double>(seconds_));
    log.setUploadHandler(nullptr);
    kept.settle();

    Json all = Json::array();
    std::vector<std::vector<std::string>> rows;
    for (const std::string& path : paths) {
        const bool isRemoved = FileManager::isNothingAtPath(path);
        isAnyLeft_ |= !isRemoved;
        all.push_back(Json{{"report", path}, {"removed", isRemoved}});
        rows.push_back({path, isRemoved ? "accepted and removed" : "not accepted, and kept"});
    }
    out << (json_ ? textOfJson(all)
                  : table({"REPORT", "UPLOAD"}, rows, "There is nothing to send."));
    if (isAnyLeft_ && !json_) {
        out << "\nReports go to " << reportUploadEndpoint() << ".\n"
            << inQuotes("utiliactl fetch " + reportUploadEndpoint())
            << " tells whether that server can be reached (an answer of 404 or 405 is a sign that "
               "it "
               "can), and\n\"utiliactl doctor\" whether everything is there that sends. What a "
               "server answers is kept in\n"
            << reportUploadOutput() << ".\n";
    }
    return {};
}

Result<void> ReportsCommand::sent(std::ostream& out) {
    const reporting::SentReports kept;
    kept.settle();
    Json all = Json::array();
    std::vector<std::vector<std::string>> rows;
    for (const reporting::SentReport& report : kept.all()) {
        const std::string outcome(outcomeName(report.outcome));
        all.push_back(Json{{"date", dateText(report.date)},
                           {"report", report.name},
                           {"bytes", report.bytes},
                           {"outcome", outcome},
                           {"document", report.document.empty() ? Json() : Json(report.document)}});
        rows.push_back({dateText(report.date), report.name, std::to_string(report.bytes), outcome,
                        report.document});
    }
    out << (json_ ? textOfJson(all)
                  : table({"DATE", "REPORT", "BYTES", "OUTCOME", "DOCUMENT"}, rows,
                          "Nothing has been sent yet."));
    return {};
}

}  // namespace utilia::control
