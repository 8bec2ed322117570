#include "Applications/utiliactl/ScheduleCommand.h"

#include <ostream>

#include "Applications/utiliactl/JsonText.h"
#include "Applications/utiliactl/PlainText.h"
#include "Applications/utiliactl/SharedStore.h"
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

}  // namespace

CLI::App* ScheduleCommand::declare(CLI::App& program) {
    CLI::App* const command =
        program.add_subcommand("schedule", "Shows when tools are to be started.");
    command->require_subcommand(1);
    command->add_subcommand("list", "Lists the scheduler records, the last updated one last.")
        ->add_flag("--json", json_, "Answer as JSON");
    return command;
}

Result<void> ScheduleCommand::run(std::ostream& out) {
    const auto content = readSharedStore();
    if (!content) return content.error();
    Json list = Json::array();
    std::vector<std::vector<std::string>> rows;
    for (const Value& value : content->array(kSchedulerKey).value_or(Array())) {
        if (!value.dictionary()) continue;
        Json record = recordAsJson(*value.dictionary());
        std::vector<std::string> row;
        for (const auto& [key, field] : record.items()) row.push_back(plain(field));
        rows.push_back(std::move(row));
        list.push_back(std::move(record));
    }
    out << (json_ ? textOfJson(list)
                  : table({"BUNDLE IDENTIFIER", "NAME", "AT DATE", "DATE", "INTERVAL", "AT LOGIN"},
                          rows, "No tool is scheduled."));
    return {};
}

}  // namespace utilia::control
