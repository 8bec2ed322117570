#include "Applications/utiliactl/AdminSettingsCheck.h"

#include <algorithm>
#include <optional>
#include <set>
#include <string_view>

#include "Applications/utiliactl/AdminSettingsFile.h"
#include "Applications/utiliactl/JsonText.h"
#include "Applications/utiliactl/PlainText.h"
#include "Common/Platform/FileManager.h"
#include "Common/Platform/StringComparison.h"
#include "Common/UtiliaCommon/AdminSettings/KAVAdminStorage.h"
#include "Common/UtiliaCommon/AdminSettings/KAVPathHelper.h"
#include "Common/UtiliaCommon/AdminSettings/ToolSets.h"

namespace utilia::control {
namespace {

using platform::FileManager;
using platform::ItemStatus;
using Severity = Finding::Severity;

// The agent's own; the framework does not know it.
constexpr std::string_view kHideRestrictedTools = "HideRestrictedTools";
constexpr std::string_view kKnownKeys[] = {kHideRestrictedTools, kKAVUpdatesDisabled,
                                           kKAVUsageReportingDisabled, kKAVWhiteToolsListKey};

std::string inText(const Value& value) { return jsonFromValue(value).dump(); }

class Findings final {
public:
    explicit Findings(std::string path) : path_(std::move(path)) {}

    void add(Severity severity, std::string message, platform::JSONPosition position = {}) {
        all_.push_back({severity, path_, position, std::move(message)});
    }
    void append(std::vector<Finding> others) {
        for (Finding& each : others) all_.push_back(std::move(each));
    }
    std::vector<Finding> take() { return std::move(all_); }

private:
    std::string path_;
    std::vector<Finding> all_;
};

bool isAdministrator(std::uint32_t user) {
    const auto group = FileManager::administratorsGroup();
    const auto id = group ? FileManager::idOfGroup(*group) : std::nullopt;
    return user == 0 || (id && FileManager::isUserInGroup(user, *id));
}

bool isAdministratorsGroup(std::uint32_t group) {
    const auto name = FileManager::administratorsGroup();
    return group == 0 || (name && FileManager::idOfGroup(*name) == group);
}

void checkWriters(const ItemStatus& status, Findings& findings) {
    constexpr std::uint32_t kOthersWrite = 0002;
    constexpr std::uint32_t kGroupWrites = 0020;
    if ((status.posixPermissions & kOthersWrite) != 0)
        findings.add(Severity::Error, "every user may write it");
    if ((status.posixPermissions & kGroupWrites) != 0 &&
        !isAdministratorsGroup(status.groupOwnerAccountId)) {
        findings.add(Severity::Error, "group " + std::to_string(status.groupOwnerAccountId) +
                                          " may write it, which is not the administrators' group");
    }
    if (!isAdministrator(status.ownerAccountId)) {
        findings.add(Severity::Error, "it belongs to user " +
                                          std::to_string(status.ownerAccountId) +
                                          ", who is no administrator and may change it");
    }
}

std::vector<Finding> checkFolder() {
    constexpr std::uint32_t kOthersEnter = 0001;
    Findings findings(KAVPathHelper::dirPath());
    const auto status = FileManager::attributesOfItemAtPath(KAVPathHelper::dirPath());
    if (!status) return findings.take();  // what this means the file tells
    if (status->type == ItemStatus::Type::SymbolicLink) {
        findings.add(Severity::Warning, "it is a link, and who may change where it leads is not "
                                        "checked");
        return findings.take();
    }
    if (status->type != ItemStatus::Type::Directory) {
        findings.add(Severity::Error, "it is no folder");
        return findings.take();
    }
    checkWriters(*status, findings);
    if ((status->posixPermissions & kOthersEnter) == 0) {
        findings.add(Severity::Error, "users may not enter it, so that their tools do not see the "
                                      "settings and are not restricted");
    }
    return findings.take();
}

// Whether what the file holds can be looked at.
bool checkFileItself(const ItemStatus& status, Findings& findings) {
    constexpr std::uint32_t kOthersRead = 0004;
    if (status.type == ItemStatus::Type::SymbolicLink) {
        findings.add(Severity::Warning,
                     "it is a link: tools read what it leads to, but it is never "
                     "written, and who may change that is not checked");
        return true;
    }
    if (status.type != ItemStatus::Type::RegularFile) {
        findings.add(Severity::Error, "it is no regular file, so that nothing is restricted");
        return false;
    }
    checkWriters(status, findings);
    if ((status.posixPermissions & kOthersRead) == 0) {
        findings.add(Severity::Error,
                     "users may not read it, so that their tools are not restricted");
    }
    return true;
}

void checkWhiteList(const Value& value, Findings& findings) {
    const Array* const entries = value.array();
    if (!entries) {
        findings.add(Severity::Error, "\"WhiteToolsList\" is no array, so that every tool is "
                                      "forbidden: " +
                                          inText(value));
        return;
    }
    const Value subset(kKAVWhiteToolsList_BusinessToolsetValue);
    if (std::find(entries->begin(), entries->end(), subset) != entries->end()) {
        if (entries->size() > 1) {
            findings.add(Severity::Warning, "\"WhiteToolsList\" holds " + inText(subset) +
                                                ", beside which other entries do not count");
        }
        return;
    }
    const ToolSets::Identifiers catalogue = ToolSets::fullSet();
    std::set<std::string> named;
    for (const Value& entry : *entries) {
        std::string identifier;
        const std::string* const name = entry.string();
        if (!name) {
            findings.add(Severity::Warning, "\"WhiteToolsList\" holds " + inText(entry) +
                                                ", which is no text and is ignored");
        } else if (!ToolSets::isFoundCaseInsensitveString(
                       std::string(kToolBundleIdentifierPrefix) + *name, catalogue, &identifier)) {
            findings.add(Severity::Warning, "\"WhiteToolsList\" holds " + inText(entry) +
                                                ", which names no tool and is ignored");
        } else if (!named.insert(identifier).second) {
            findings.add(Severity::Notice,
                         "\"WhiteToolsList\" names a tool again: " + inText(entry));
        }
    }
    if (named.empty()) findings.add(Severity::Notice, "every tool is forbidden");
}

void checkUnknownKey(const std::string& key, Findings& findings) {
    for (const std::string_view known : kKnownKeys) {
        if (platform::isCaseInsensitiveEqual(key, known)) {
            findings.add(Severity::Warning, "the key " + inQuotes(key) +
                                                " has no effect: letter case counts, and it is "
                                                "spelled " +
                                                inQuotes(known));
            return;
        }
    }
    findings.add(Severity::Notice,
                 "the key " + inQuotes(key) + " is unknown here; an application may know it");
}

}  // namespace

std::vector<Finding> checkSettings(const Dictionary& settings) {
    Findings findings(KAVPathHelper::filePath());
    for (const auto& [key, value] : settings) {
        if (key == kKAVWhiteToolsListKey) {
            checkWhiteList(value, findings);
        } else if (key == kKAVUpdatesDisabled) {
            if (!value.boolean()) {
                findings.add(Severity::Error,
                             "\"UpdatesDisabled\" is neither true nor false: " + inText(value));
            }
        } else if (key == kHideRestrictedTools) {
            if (!value.boolean()) {
                findings.add(Severity::Error,
                             "\"HideRestrictedTools\" is neither true nor false: " + inText(value));
            }
        } else if (key == kKAVUsageReportingDisabled) {
            if (!value.boolean()) {
                findings.add(Severity::Error, "\"UsageReportingDisabled\" is neither true nor "
                                              "false, so that usage reporting is off: " +
                                                  inText(value));
            }
        } else {
            checkUnknownKey(key, findings);
        }
    }
    return findings.take();
}

std::vector<Finding> checkSettingsFile() {
    const std::string path = KAVPathHelper::filePath();
    Findings findings(path);
    findings.append(checkFolder());
    if (FileManager::isNothingAtPath(path)) {
        findings.add(Severity::Notice, "it does not exist, so that nothing is restricted");
        return findings.take();
    }
    const auto status = FileManager::attributesOfItemAtPath(path);
    if (!status) {
        findings.add(Severity::Error, status.error().description);
        return findings.take();
    }
    if (!checkFileItself(*status, findings)) return findings.take();
    platform::JSONNotes notes;
    const auto settings = readAdminSettings(&notes);
    if (!settings) {
        std::string reason = settings.error().description.substr(path.size() + 2);
        // The finding says the place by itself.
        const std::string place = "line " + std::to_string(notes.error.line) + ", column " +
                                  std::to_string(notes.error.column) + ": ";
        if (reason.starts_with(place)) reason.erase(0, place.size());
        findings.add(Severity::Error, "it cannot be used, so that nothing is restricted: " + reason,
                     notes.error);
        return findings.take();
    }
    if (!settings->exists) {
        findings.add(Severity::Error, "it is a link that leads nowhere, so that nothing is "
                                      "restricted");
        return findings.take();
    }
    for (const auto& duplicate : notes.duplicateKeys) {
        findings.add(Severity::Warning,
                     "the key " + inQuotes(duplicate.key) + " is there twice; the last one counts",
                     duplicate.position);
    }
    findings.append(checkSettings(settings->settings));
    return findings.take();
}

}  // namespace utilia::control
