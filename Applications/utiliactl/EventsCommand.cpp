#include "Applications/utiliactl/EventsCommand.h"

#include <ostream>
#include <vector>

#include "Applications/utiliactl/EventRecords.h"
#include "Applications/utiliactl/JsonText.h"
#include "Applications/utiliactl/PlainText.h"
#include "Common/Platform/FileManager.h"
#include "Common/Platform/JSONSerialization.h"
#include "Common/UtiliaCommon/CEP/CEPLog.h"
#include "Common/UtiliaCommon/CEP/EventLog.h"

namespace utilia::control {
namespace {

Result<void> findLog() {
    if (CEPLogInit() == 0) return {};
    return Error::utilia(UtiliaErrorCode::Unavailable,
                         platform::FileManager::libraryDirectory() +
                             "/Logs: the folder is not there and cannot be made");
}

// For an option: a JSON object, which becomes `dictionary`.
auto readObject(Dictionary* dictionary) {
    return [dictionary](const std::string& text) -> std::string {
        const auto value = platform::jsonObjectFromData(
            {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
        if (!value) return value.error().description;
        if (!value->dictionary()) return inQuotes(text) + " is no JSON object";
        *dictionary = *value->dictionary();
        return "";
    };
}

// An action is written as it is given.
std::string refuseMarkup(const std::string& action) {
    if (action.find_first_of("<&\"") == std::string::npos) return "";
    return inQuotes(action) + " holds <, & or \", with which no report could be read";
}

std::string textOf(const Json& record, const char* key) {
    return record.contains(key) && record[key].is_string() ? record[key].get<std::string>() : "-";
}

// The options and details in one line.
std::string contentOf(const Json& record) {
    std::string text;
    for (const char* part : {"options", "details"}) {
        if (!record.contains(part)) continue;
        if (!text.empty()) text += " ";
        text += std::string(part) + "=" + record[part].dump();
    }
    return text.empty() ? "-" : text;
}

}  // namespace

CLI::App* EventsCommand::declare(CLI::App& program) {
    CLI::App* const command =
        program.add_subcommand("events", "Shows the log of usage events, or adds one to it.");
    command->require_subcommand(1);
    CLI::App* const path = command->add_subcommand("path", "Tells where the log lies.");
    path->callback([this] { chosen_ = &EventsCommand::path; });
    CLI::App* const show =
        command->add_subcommand("show", "Shows the events that no report has taken yet.");
    show->add_flag("--json", json_, "Answer as JSON");
    show->callback([this] { chosen_ = &EventsCommand::show; });
    CLI::App* const log = command->add_subcommand("log", "Records an event, as a tool does.");
    log->footer("Fails while usage reporting is switched off.");
    log->add_option("ACTION", action_, "What has happened, without <, & and \"")
        ->required()
        ->check(refuseEmpty)
        ->check(refuseMarkup);
    log->add_option("--options", optionsText_, "Settings at that moment, a JSON object")
        ->check(CLI::Validator(readObject(&options_), "JSON"));
    log->add_option("--details", detailsText_, "More about the event, a JSON object")
        ->check(CLI::Validator(readObject(&details_), "JSON"));
    log->callback([this] { chosen_ = &EventsCommand::log; });
    return command;
}

Result<void> EventsCommand::run(std::ostream& out) { return (this->*chosen_)(out); }

Result<void> EventsCommand::path(std::ostream& out) const {
    if (auto found = findLog(); !found) return found;
    out << CEPLogPath() << "\n";
    return {};
}

Result<void> EventsCommand::show(std::ostream& out) const {
    if (auto found = findLog(); !found) return found;
    Json events = Json::array();
    for (const std::string& document : CEPLogDocuments()) {
        for (Json& record : eventRecords(document)) events.push_back(std::move(record));
    }
    if (json_) {
        out << textOfJson(Json{{"path", CEPLogPath()}, {"events", events}});
        return {};
    }
    std::vector<std::vector<std::string>> rows;
    for (const Json& record : events) {
        rows.push_back({textOf(record, "timestamp"), textOf(record, "tool"),
                        textOf(record, record.contains("record") ? "record" : "action"),
                        contentOf(record)});
    }
    out << table({"TIME (UTC)", "TOOL", "ACTION", "CONTENT"}, rows, "There are no events.");
    return {};
}

Result<void> EventsCommand::log(std::ostream&) const {
    if (auto found = findLog(); !found) return found;
    CEPLog& reporting = CEPLog::sharedInstance();
    if (reporting.isCEPDisabled())
        return Error::utilia(UtiliaErrorCode::Refused,
                             "usage reporting is switched off: nothing is recorded");
    // As CEPLog::log(), which does not tell how it went.
    const std::string action = reporting.handlePermanentStart(action_);
    const int code = CEPLogEvent(action, nullptr, &options_, &details_);
    if (code == 0) return {};
    return Error::utilia(UtiliaErrorCode::Unavailable, CEPLogPath() +
                                                           ": the event is not recorded (" +
                                                           std::to_string(code) + ")");
}

}  // namespace utilia::control
