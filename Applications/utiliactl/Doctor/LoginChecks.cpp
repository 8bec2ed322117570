#include <algorithm>
#include <optional>
#include <utility>

#include "Applications/utiliactl/Doctor/Diagnosis.h"
#include "Applications/utiliactl/PlainText.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/FileManager.h"
#include "Common/Platform/LoginItems.h"
#include "Common/Platform/Workspace.h"
#include "Common/UtiliaCommon/LoginItems/UtiliaToolLauncher.h"

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

// The entries that this product made, and whose program has moved or gone.
Diagnoses diagnoseEntries(const std::vector<LoginItem>& items) {
    Diagnoses found;
    for (const LoginItem& item : items) {
        const bool isOurs = item.path().find("korvane") != std::string::npos;
        if (!isOurs || (item.resolvedURL() && isRunnable(*item.resolvedURL()))) continue;
        found.push_back({kLogin, Severity::Error,
                         item.path() + " starts a program that is not there",
                         "\"utiliactl login add TOOL\" puts the entry in order; without tools to "
                         "start, remove the file."});
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
    const auto list = UtiliaToolLauncher::getDefaults()->arrayForKey(kLaunchAtLoginToolsKey);
    for (const Value& value : list.value_or(Array())) {
        if (value.string()) tools.push_back(*value.string());
    }
    return tools;
}

}  // namespace

Diagnoses checkLogin() {
    const auto list = LoginItems::create();
    if (!list) return {{kLogin, Severity::Error, list.error().description, ""}};
    const auto items = list->snapshot();
    if (!items) return {{kLogin, Severity::Error, items.error().description, ""}};

    Diagnoses found = diagnoseEntries(*items);
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
