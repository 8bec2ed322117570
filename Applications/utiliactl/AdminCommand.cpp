#include "Applications/utiliactl/AdminCommand.h"

#include <cstdint>
#include <optional>
#include <ostream>
#include <sstream>
#include <vector>

#include "Applications/utiliactl/AdminSettingsCheck.h"
#include "Applications/utiliactl/AdminSettingsFile.h"
#include "Applications/utiliactl/JsonText.h"
#include "Applications/utiliactl/PlainText.h"
#include "Common/Logging/Log.h"
#include "Common/Platform/JSONSerialization.h"
#include "Common/UtiliaCommon/AdminSettings/KAVAdminStorage.h"
#include "Common/UtiliaCommon/AdminSettings/KAVKeyValueHelper.h"
#include "Common/UtiliaCommon/AdminSettings/KAVPathHelper.h"

namespace utilia::control {
namespace {

Error refused(std::string why) { return Error::utilia(UtiliaErrorCode::Refused, std::move(why)); }

// As the library does, which says it in the log.
std::string refuseSubsetBesideNames(const std::string& tools) {
    const std::string subset(kKAVWhiteToolsList_BusinessToolsetValue);
    std::istringstream pieces(tools);
    bool isSubsetAmong = false;
    int count = 0;
    for (std::string piece; std::getline(pieces, piece, ','); ++count) {
        piece.erase(0, piece.find_first_not_of(" \t"));
        piece.erase(piece.find_last_not_of(" \t") + 1);
        isSubsetAmong |= piece == subset;
    }
    if (!isSubsetAmong || (count == 1 && !tools.ends_with(','))) return "";
    return inQuotes(subset) + " stands alone, not beside other names";
}

// JSON where the text is, and must be, JSON; any other text is itself.
Result<Value> valueFromText(const std::string& text) {
    const std::string list = "[" + text + "]";
    const auto read = platform::jsonObjectFromData(Data(list.begin(), list.end()));
    if (read && read->array()->size() == 1) return (*read->array())[0];
    constexpr std::string_view kBeginnings = "[{\"";
    const std::size_t begin = text.find_first_not_of(" \t\r\n");
    if (begin != std::string::npos && kBeginnings.find(text[begin]) != std::string_view::npos)
        return refused("the value begins like JSON and is none: " + inQuotes(text));
    return Value(text);
}

// What a key of our own takes; any other key takes everything.
Result<void> checkType(std::string_view key, const Value& value) {
    if (value.isNull()) return {};
    if (key == kKAVUpdatesDisabled && !value.boolean())
        return refused("UpdatesDisabled takes true or false");
    if (key == kKAVUsageReportingDisabled && !value.boolean())
        return refused("UsageReportingDisabled takes true or false");
    if (key == kKAVWhiteToolsListKey && !value.array())
        return refused("WhiteToolsList takes a JSON array of names; \"utiliactl admin "
                       "set-white-list\" takes them as text");
    return {};
}

const char* nameOf(Finding::Severity severity) {
    switch (severity) {
    case Finding::Severity::Error:
        return "error";
    case Finding::Severity::Warning:
        return "warning";
    case Finding::Severity::Notice:
        break;
    }
    return "notice";
}

// What is stored all the same is worth a word: a slip here forbids tools.
void warnAbout(const Dictionary& settings) {
    for (const Finding& finding : checkSettings(settings)) {
        if (finding.severity != Finding::Severity::Notice)
            KULogVariadic("%@: %@", nameOf(finding.severity), finding.message);
    }
}

Result<void> store(std::string_view key, const std::optional<Value>& value) {
    const auto settings = changeAdminSettings(key, value);
    if (!settings) return settings.error();
    warnAbout(*settings);
    return {};
}

}  // namespace

CLI::App* AdminCommand::declare(CLI::App& program) {
    CLI::App* const command = program.add_subcommand(
        "admin", "Shows, checks and changes the administrator's settings of this machine.");
    command->footer("They lie in " + KAVPathHelper::filePath() +
                    ". Changing them takes root, or membership in the administrators' group; tools "
                    "take notice when they start.");
    command->require_subcommand(1);
    show_ = command->add_subcommand("show", "Shows the settings.");
    setWhiteList_ =
        command->add_subcommand("set-white-list", "Says which tools may run on this machine.");
    setWhiteList_
        ->add_option("TOOLS", tools_,
                     "Short names with commas between them, such as \"Timer, MoonPhase\", or "
                     "business-toolset-only; an empty text removes the white-list")
        ->required()
        ->check(refuseSubsetBesideNames);
    clearWhiteList_ =
        command->add_subcommand("clear-white-list", "Lets every tool run on this machine.");
    set_ = command->add_subcommand("set", "Sets the value of one key.");
    set_->add_option("KEY", key_, "A key, such as UpdatesDisabled")->required();
    set_->add_option("VALUE", value_, "A JSON value, or else a text; null removes the key")
        ->required();
    set_->callback([this] {
        if (const auto checked = checkedValue(); !checked)
            throw CLI::ValidationError(checked.error().description);
    });
    check_ = command->add_subcommand(
        "check", "Looks for mistakes in the settings, and for users who could change them.");
    for (CLI::App* const each : {show_, check_}) each->add_flag("--json", json_, "Answer as JSON");
    return command;
}

Result<void> AdminCommand::run(std::ostream& out) {
    if (show_->parsed()) return show(out);
    if (setWhiteList_->parsed()) return setWhiteList();
    if (clearWhiteList_->parsed()) return store(kKAVWhiteToolsListKey, std::nullopt);
    if (set_->parsed()) return setValue();
    check(out);
    return {};
}

Result<void> AdminCommand::show(std::ostream& out) const {
    const auto settings = readAdminSettings();
    if (!settings) return settings.error();
    const std::string path = KAVPathHelper::filePath();
    if (json_) {
        out << textOfJson(
            {{"file", path},
             {"exists", settings->exists},
             {"settings", settings->exists ? jsonFromValue(settings->settings) : Json(nullptr)}});
    } else if (!settings->exists) {
        out << path << " does not exist: nothing is restricted.\n";
    } else {
        out << outline(settings->settings);
    }
    return {};
}

Result<void> AdminCommand::setWhiteList() const {
    std::optional<std::vector<std::string>> names;
    std::int64_t error = 0;
    if (!KAVKeyValueHelper::arrayFromWhiteListString(tools_, &names, &error))
        return refused("this is no white-list: " + inQuotes(tools_));
    if (!names) return store(kKAVWhiteToolsListKey, std::nullopt);
    Array list;
    for (const std::string& name : *names) list.append(name);
    return store(kKAVWhiteToolsListKey, Value(std::move(list)));
}

Result<Value> AdminCommand::checkedValue() const {
    auto value = valueFromText(value_);
    if (!value) return value;
    if (const auto checked = checkType(key_, *value); !checked) return checked.error();
    return value;
}

Result<void> AdminCommand::setValue() const {
    const auto value = checkedValue();
    if (!value) return value.error();
    return store(key_, value->isNull() ? std::nullopt : std::optional<Value>(*value));
}

void AdminCommand::check(std::ostream& out) {
    const std::vector<Finding> findings = checkSettingsFile();
    Json list = Json::array();
    for (const Finding& finding : findings) {
        const bool isPlaced = finding.position.line > 0;
        hasFoundErrors_ = hasFoundErrors_ || finding.severity == Finding::Severity::Error;
        list.push_back({{"severity", nameOf(finding.severity)},
                        {"path", finding.path},
                        {"line", isPlaced ? Json(finding.position.line) : Json(nullptr)},
                        {"column", isPlaced ? Json(finding.position.column) : Json(nullptr)},
                        {"message", finding.message}});
        if (json_) continue;
        out << nameOf(finding.severity) << ": " << finding.path << ": ";
        if (isPlaced) {
            out << "line " << finding.position.line << ", column " << finding.position.column
                << ": ";
        }
        out << finding.message << '\n';
    }
    if (json_) {
        out << textOfJson({{"file", KAVPathHelper::filePath()},
                           {"valid", !hasFoundErrors_},
                           {"findings", std::move(list)}});
    } else if (findings.empty()) {
        out << KAVPathHelper::filePath() << " is in order.\n";
    }
}

}  // namespace utilia::control
