#include "Applications/utiliactl/ScheduleCommand.h"

#include <optional>
#include <ostream>
#include <vector>

#include "Applications/utiliactl/DateArgument.h"
#include "Applications/utiliactl/JsonText.h"
#include "Applications/utiliactl/PlainText.h"
#include "Applications/utiliactl/SharedStore.h"
#include "Common/Platform/StringComparison.h"
#include "Common/Platform/Workspace.h"
#include "Common/UtiliaCommon/AdminSettings/ToolSets.h"
#include "Common/UtiliaCommon/Scheduler/AgentScheduler.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"

namespace utilia::control {
namespace {

// Absent keys read as no, null and 0, as the framework reads them.
Json recordAsJson(const Dictionary& record) {
    const auto text = [&record](std::string_view key) {
        const auto found = record.string(key);
        return found ? Json(*found) : Json(nullptr);
    };
    const Value* const date = record.find(kSchedulerDateKey);
    const Value* const interval = record.find(kSchedulerIntervalKey);
    const bool isNumber = interval && (interval->type() == Value::Type::Integer ||
                                       interval->type() == Value::Type::Real);
    return {
        {"bundleid", text(kSchedulerBundleIdKey)},
        {"name", text(kSchedulerNameKey)},
        {"launchAtDate", record.boolean(kSchedulerLaunchAtDateKey)},
        {"date", date && date->date() ? Json(dateText(*date->date())) : Json(nullptr)},
        {"interval", isNumber ? jsonFromValue(*interval) : Json(0)},
        {"launchAtLogin", record.boolean(kSchedulerLaunchAtLoginKey)},
    };
}

std::string plain(const Json& value) {
    if (value.is_null()) return "-";
    if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
    if (value.is_string()) return value.get<std::string>();
    return value.dump();
}

std::string recordsAsTable(const Json& records) {
    std::vector<std::vector<std::string>> rows;
    for (const Json& record : records) {
        std::vector<std::string> row;
        for (const auto& [key, field] : record.items()) row.push_back(plain(field));
        rows.push_back(std::move(row));
    }
    return table({"BUNDLE IDENTIFIER", "NAME", "AT DATE", "DATE (UTC)", "INTERVAL", "AT LOGIN"},
                 rows, "No tool is scheduled.");
}

std::optional<Dictionary> recordOf(const std::string& tool, const std::string& name) {
    std::optional<Dictionary> found;
    readSchedulerPlist(tool, name, [&found](const Dictionary& record) { found = record; });
    return found;
}

// What is logged on the way says why.
Error scheduleNotStored() {
    return Error::utilia(UtiliaErrorCode::Unavailable, "the schedule cannot be stored");
}

// Identifiers are compared to the letter.
std::string otherSpelling(const std::string& tool) {
    for (const std::string& known : ToolSets::fullSet()) {
        if (known != tool && platform::isCaseInsensitiveEqual(known, tool))
            return " Is " + inQuotes(known) + " meant?";
    }
    return "";
}

// The record as `list` would show it.
void answer(std::ostream& out, const Dictionary& record, bool asJson) {
    const Json json = recordAsJson(record);
    out << (asJson ? textOfJson(json) : recordsAsTable(Json::array({json})));
}

}  // namespace

CLI::App* ScheduleCommand::declare(CLI::App& program) {
    CLI::App* const command = program.add_subcommand(
        "schedule", "Shows and changes when tools are to be started, as the agent does.");
    command->require_subcommand(1);
    const auto addTool = [this](CLI::App* subcommand) {
        subcommand->add_option("BUNDLE_ID", tool_, "The tool's bundle identifier")
            ->required()
            ->check(refuseEmpty);
        subcommand->add_option("NAME", name_, "The tool's name in its record, such as Timer")
            ->required()
            ->check(refuseEmpty);
    };

    CLI::App* const list =
        command->add_subcommand("list", "Lists the scheduler records, the last updated one last.");
    list->callback([this] { chosen_ = &ScheduleCommand::list; });
    CLI::App* const add =
        command->add_subcommand("add", "Has a tool started once at a date, and tells the agent.");
    add->footer("DATE is one of\n"
                "  2026-11-21                   the beginning of that day, where you are\n"
                "  2026-11-21T10:00[:30[.5]]    where you are; a blank may stand for the T\n"
                "  2026-11-21T10:00+01:00       in that zone: Z, +HH, +HHMM or +HH:MM, or with -\n"
                "  +90, +90s, +15m, +2h, +1d    from now\n"
                "Of a local time that comes twice the first is meant; one that does not come is "
                "refused. A date in the past is stored as any other.");
    add->add_option("DATE", date_, "When; see below")
        ->required()
        ->check([](const std::string& text) {
            const auto date = dateFromText(text, Date::now());
            return date ? std::string() : date.error().description;
        });
    addTool(add);
    add->callback([this] { chosen_ = &ScheduleCommand::add; });
    CLI::App* const cancel =
        command->add_subcommand("cancel", "Takes the date out of a tool's record.");
    cancel->footer("As when the agent cancels, nobody is told, and a tool without a record gets "
                   "one that only names it.");
    addTool(cancel);
    cancel->callback([this] { chosen_ = &ScheduleCommand::cancel; });
    for (CLI::App* const each : {list, add, cancel})
        each->add_flag("--json", json_, "Answer as JSON");
    return command;
}

Result<void> ScheduleCommand::run(std::ostream& out) { return (this->*chosen_)(out); }

Result<void> ScheduleCommand::list(std::ostream& out) const {
    const auto content = readSharedStore();
    if (!content) return content.error();
    Json records = Json::array();
    for (const Value& value : content->array(kSchedulerKey).value_or(Array())) {
        if (value.dictionary()) records.push_back(recordAsJson(*value.dictionary()));
    }
    out << (json_ ? textOfJson(records) : recordsAsTable(records));
    return {};
}

Result<void> ScheduleCommand::add(std::ostream& out) const {
    const auto date = dateFromText(date_, Date::now());
    if (!date) return date.error();
    AgentScheduler::scheduleToolAtDate(*date, tool_, name_);
    const auto record = recordOf(tool_, name_);
    const Value* const stored = record ? record->find(kSchedulerDateKey) : nullptr;
    if (!stored || *stored != Value(*date) || !record->boolean(kSchedulerLaunchAtDateKey))
        return scheduleNotStored();
    answer(out, *record, json_);
    if (!json_ && !platform::Workspace::URLForApplicationWithBundleIdentifier(tool_)) {
        out << '\n'
            << inQuotes(tool_)
            << " is not installed: until it is, it cannot be started, and stays due."
            << otherSpelling(tool_) << '\n';
    }
    return {};
}

Result<void> ScheduleCommand::cancel(std::ostream& out) const {
    AgentScheduler::cancelScheduleByName(name_, tool_);
    const auto record = recordOf(tool_, name_);
    if (!record || record->contains(kSchedulerDateKey) ||
        record->contains(kSchedulerLaunchAtDateKey)) {
        return scheduleNotStored();
    }
    answer(out, *record, json_);
    return {};
}

}  // namespace utilia::control
