#include <algorithm>
#include <filesystem>
#include <optional>
#include <utility>

#include "Applications/Agent/AgentTextKeys.h"
#include "Applications/utiliactl/Doctor/Diagnosis.h"
#include "Applications/utiliactl/Doctor/FolderCheck.h"
#include "Applications/utiliactl/PlainText.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/FileManager.h"
#include "Common/Platform/LoginItems.h"
#include "Common/Platform/PropertyListSerialization.h"
#include "Common/Platform/UserDefaults.h"
#include "Common/Platform/Workspace.h"
#include "Common/UtiliaCommon/LoginItems/UtiliaToolLauncher.h"
#include "Common/UtiliaCommon/ToolDataProvider/PortProtocol.h"

namespace utilia::control {
namespace {

using platform::LoginItem;
using platform::LoginItems;
using platform::Workspace;
using Severity = Diagnosis::Severity;

constexpr const char* kLogin = "start at login";

bool isRunnable(const std::string& application) {
    const auto bundle = platform::Bundle::bundleWithPath(application);
    const auto program = bundle ? bundle->executablePath() : std::nullopt;
    return program && platform::FileManager::isExecutableFileAtPath(*program);
}

// As a person reads it: in the text, "&" marks the letter that works with Alt.
std::string nameOfAgentsSwitch() {
    std::string name(agent::kOpenAtLoginText);
    std::erase(name, '&');
    return name;
}

// The entries that this product made, and whose program has moved or gone. They are named by identifiers.
Diagnoses diagnoseEntries(const std::vector<LoginItem>& items) {
    Diagnoses found;
    for (const LoginItem& item : items) {
        const std::string identifier = std::filesystem::path(item.path()).stem().string();
        if (!identifier.starts_with(kAgentBundleIdentifier)) continue;
        if (item.resolvedURL() && isRunnable(*item.resolvedURL())) continue;
        std::string advice =
            "\"utiliactl login add TOOL\" puts the entry in order; without tools to start, remove "
            "the file.";
        if (identifier == kAgentBundleIdentifier) {
            advice = "Remove the file, then switch " + inQuotes(nameOfAgentsSwitch()) +
                     " in the agent's settings on again.";
        }
        found.push_back({kLogin, Severity::Error,
                         item.path() + " starts a program that is not there", std::move(advice)});
    }
    return found;
}

Diagnoses diagnoseTools(const std::vector<std::string>& tools) {
    Diagnoses found;
    for (const std::string& tool : tools) {
        const auto place = Workspace::URLForApplicationWithBundleIdentifier(tool);
        if (!place) {
            found.push_back({kLogin, Severity::Warning,
                             inQuotes(tool) + " is to be started and is not installed",
                             "Install it, or: utiliactl login remove " + tool});
        } else if (!isRunnable(*place)) {
            found.push_back(
                {kLogin, Severity::Warning,
                 inQuotes(tool) + " is to be started, but its program is missing in " + *place,
                 "Install it again, or: utiliactl login remove " + tool});
        }
    }
    return found;
}

// Of the one application that the session starts, and which starts the tools.
std::optional<Diagnosis> diagnoseLauncher(const std::vector<LoginItem>& items,
                                          const std::vector<std::string>& tools) {
    if (tools.empty()) return std::nullopt;
    const auto launcher = UtiliaToolLauncher::launchHelperURL();
    if (!launcher) {
        return Diagnosis{
            kLogin, Severity::Error,
            "tools are to be started, but no agent is installed, whose launcher does it",
            "Install the applications."};
    }
    if (!isRunnable(*launcher)) {
        return Diagnosis{kLogin, Severity::Error,
                         "tools are to be started, but the launcher is missing: " + *launcher,
                         "Install the applications again."};
    }
    const bool isItem = std::any_of(items.begin(), items.end(), [&](const LoginItem& item) {
        return item.resolvedURL() == launcher;
    });
    if (isItem) return std::nullopt;
    return Diagnosis{kLogin, Severity::Error,
                     "tools are to be started, but the session does not start the launcher",
                     "utiliactl login add " + tools.front()};
}

std::vector<std::string> toolsToStart() {
    std::vector<std::string> tools;
    const auto defaults = platform::UserDefaults::initWithDomain(kAgentBundleIdentifier);
    // Read by itself: the domain's own functions would set a damaged file aside.
    const auto bytes = defaults ? platform::FileManager::contentsAtPath(
                                      defaults->path(), platform::kPropertyListMaximumSize)
                                : Result<Data>(Data());
    const auto content = bytes ? platform::propertyListFromData(*bytes) : Result<Value>(nullptr);
    const Dictionary* const kept = content ? content->dictionary() : nullptr;
    const auto list = kept ? kept->array(kLaunchAtLoginToolsKey) : std::nullopt;
    for (const Value& value : list.value_or(Array())) {
        if (value.string()) tools.push_back(*value.string());
    }
    return tools;
}

Diagnosis unreadable(const Error& error) {
    return {kLogin, Severity::Error, error.description,
            "The folder autostart in XDG_CONFIG_HOME (or ~/.config) must be a folder that is "
            "yours and can be read; put away what is in its place."};
}

}  // namespace

Diagnoses checkLogin() {
    const auto list = LoginItems::create();
    if (!list) return {unreadable(list.error())};
    const auto items = list->snapshot();
    if (!items) return {unreadable(items.error())};

    Diagnoses found;
    auto folder = diagnoseFolder(kLogin, folderOfUser("XDG_CONFIG_HOME", ".config") / "autostart",
                                 "The folder autostart in XDG_CONFIG_HOME (or ~/.config)",
                                 "what is started at login cannot be changed");
    if (folder.severity != Severity::Good) found.push_back(std::move(folder));
    const Diagnoses entries = diagnoseEntries(*items);
    found.insert(found.end(), entries.begin(), entries.end());
    const auto tools = toolsToStart();
    const Diagnoses missing = diagnoseTools(tools);
    found.insert(found.end(), missing.begin(), missing.end());

    if (auto launcher = diagnoseLauncher(*items, tools)) found.push_back(std::move(*launcher));
    if (!found.empty()) return found;
    return {{kLogin, Severity::Good,
             tools.empty() ? "no tool is to be started"
                           : std::to_string(tools.size()) + " tools are started",
             ""}};
}

}  // namespace utilia::control
