#include "Applications/utiliactl/PolicyCommand.h"

#include <algorithm>
#include <optional>
#include <ostream>
#include <vector>

#include "Applications/utiliactl/AdminSettingsFile.h"
#include "Applications/utiliactl/JsonText.h"
#include "Applications/utiliactl/PlainText.h"
#include "Common/UtiliaCommon/AdminSettings/KAVAdminStorage.h"
#include "Common/UtiliaCommon/AdminSettings/KAVPathHelper.h"
#include "Common/UtiliaCommon/AdminSettings/ToolSets.h"

namespace utilia::control {
namespace {

// What decided about a tool. Names are a contract of --json.
struct Decision {
    std::string tool;  // short name
    bool isAllowed = true;
    std::string reason;
    std::optional<Value> value;  // of the white-list, or of its entry
};

std::string shortNameOf(const std::string& identifier) {
    return identifier.substr(kToolBundleIdentifierPrefix.size());
}

// The entry that names the tool, in the file's spelling.
std::optional<Value> entryFor(const std::string& identifier, const Array& entries) {
    for (const Value& entry : entries) {
        const std::string* const name = entry.string();
        if (name && ToolSets::isFoundCaseInsensitveString(
                        std::string(kToolBundleIdentifierPrefix) + *name, {identifier})) {
            return entry;
        }
    }
    return std::nullopt;
}

class Policy final {
public:
    explicit Policy(const Result<AdminSettings>& settings) : settings_(settings) {
        if (settings_) whiteList_ = ToolSets::whiteListFromSettings(settings_->settings);
    }

    // As the framework decides; the reason only explains it.
    Decision decide(const std::string& identifier) const {
        Decision decision{.tool = shortNameOf(identifier), .reason = {}, .value = {}};
        decision.isAllowed = !whiteList_ || std::find(whiteList_->begin(), whiteList_->end(),
                                                      identifier) != whiteList_->end();
        if (!settings_) {
            decision.reason = "unusable-settings";
        } else if (!settings_->exists) {
            decision.reason = "no-settings";
        } else if (!whiteList_) {
            decision.reason = "no-white-list";
        } else {
            explain(identifier, *settings_->settings.find(kKAVWhiteToolsListKey), decision);
        }
        return decision;
    }

private:
    static void explain(const std::string& identifier, const Value& list, Decision& decision) {
        const Value subset(kKAVWhiteToolsList_BusinessToolsetValue);
        const Array* const entries = list.array();
        if (!entries) {
            decision.reason = "not-an-array";
            decision.value = list;
        } else if (std::find(entries->begin(), entries->end(), subset) != entries->end()) {
            decision.reason = decision.isAllowed ? "in-subset" : "not-in-subset";
            decision.value = subset;
        } else {
            decision.reason = decision.isAllowed ? "listed" : "not-listed";
            decision.value = decision.isAllowed ? entryFor(identifier, *entries) : list;
        }
    }

    const Result<AdminSettings>& settings_;
    std::optional<ToolSets::Identifiers> whiteList_;
};

Json asJson(const Decision& decision) {
    return {{"tool", decision.tool},
            {"bundleid", std::string(kToolBundleIdentifierPrefix) + decision.tool},
            {"allowed", decision.isAllowed},
            {"reason", decision.reason},
            {"file", KAVPathHelper::filePath()},
            {"key", decision.value ? Json(std::string(kKAVWhiteToolsListKey)) : Json(nullptr)},
            {"value", decision.value ? jsonFromValue(*decision.value) : Json(nullptr)}};
}

std::string sentence(const Decision& decision) {
    const std::string& reason = decision.reason;
    if (reason == "unusable-settings") return "the settings cannot be used";
    if (reason == "no-settings") return "there are no settings";
    if (reason == "no-white-list") return "the settings hold no white-list";
    const std::string value = jsonFromValue(*decision.value).dump();
    const std::string key(kKAVWhiteToolsListKey);
    if (reason == "not-an-array") return key + " is no array: " + value;
    if (reason == "not-listed") return "not in " + key;
    return value + " in " + key + (decision.isAllowed ? "" : " leaves it out");
}

}  // namespace

CLI::App* PolicyCommand::declare(CLI::App& program) {
    CLI::App* const command = program.add_subcommand(
        "policy", "Shows which tools may run on this machine, and what says so.");
    command->footer("The settings are those that \"utiliactl admin\" shows.");
    toolOption_ = command->add_option(
        "TOOL", tool_, "One tool, by its short name or bundle identifier in any letter case");
    command->add_flag("--json", json_, "Answer as JSON");
    return command;
}

Result<void> PolicyCommand::run(std::ostream& out) {
    ToolSets::Identifiers tools = ToolSets::fullSet();
    if (*toolOption_) {
        std::string identifier;
        if (!ToolSets::isFoundCaseInsensitveString(tool_, tools, &identifier) &&
            !ToolSets::isFoundCaseInsensitveString(std::string(kToolBundleIdentifierPrefix) + tool_,
                                                   tools, &identifier)) {
            return Error::utilia(UtiliaErrorCode::NotFound,
                                 "the catalogue has no tool " + inQuotes(tool_));
        }
        tools = {identifier};
    }
    const auto settings = readAdminSettings();
    const Policy policy(settings);
    Json list = Json::array();
    std::vector<std::vector<std::string>> rows;
    for (const std::string& identifier : tools) {
        const Decision decision = policy.decide(identifier);
        list.push_back(asJson(decision));
        rows.push_back({decision.tool, decision.isAllowed ? "yes" : "no", sentence(decision)});
    }
    if (json_) {
        out << textOfJson(*toolOption_ ? list.front() : list);
    } else {
        out << table({"TOOL", "ALLOWED", "BECAUSE"}, rows, "");
        out << "\nSettings: "
            << (settings ? KAVPathHelper::filePath() : settings.error().description) << '\n';
    }
    return {};
}

}  // namespace utilia::control
