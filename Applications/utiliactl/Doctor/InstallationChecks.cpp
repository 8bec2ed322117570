#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <system_error>

#include <dlfcn.h>

#include "Applications/utiliactl/AdminSettingsCheck.h"
#include "Applications/utiliactl/Doctor/Diagnosis.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/FileManager.h"
#include "Common/UtiliaCommon/AdminSettings/KAVPathHelper.h"

namespace utilia::control {
namespace {

namespace fs = std::filesystem;
using Severity = Diagnosis::Severity;

constexpr const char* kPolicy = "settings";
constexpr const char* kModules = "modules";
constexpr const char* kPrograms = "programs";

struct Module {
    const char* name;
    const char* purpose;
};
constexpr Module kAllModules[] = {
    {"Desktop", "notifications between processes, and reachability of hosts"},
    {"Export", "saving images"},
    {"Icons", "icons of tools"},
    {"Net", "loading from the web"},
};

Diagnoses checkModules(const platform::Bundle& framework) {
    Diagnoses found;
    for (const Module& module : kAllModules) {
        const std::string path = framework.bundlePath() + "/Modules/" + module.name + ".so";
        void* const handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (handle) {
            dlclose(handle);
            continue;
        }
        const char* const why = dlerror();
        found.push_back({kModules, Severity::Error, why ? why : path + " cannot be loaded",
                         std::string("Install the library's packages again. Until then there is "
                                     "none of this: ") +
                             module.purpose + "."});
    }
    if (found.empty()) found.push_back({kModules, Severity::Good, "all can be loaded", ""});
    return found;
}

// Whether a program of this name would be found.
bool isInSearchPath(std::string_view name) {
    const char* const given = std::getenv("PATH");
    std::string_view rest = given ? given : "/usr/bin:/bin";
    while (!rest.empty()) {
        const std::size_t colon = std::min(rest.find(':'), rest.size());
        const fs::path folder(rest.substr(0, colon));
        rest.remove_prefix(std::min(colon + 1, rest.size()));
        if (platform::FileManager::isExecutableFileAtPath((folder / name).string())) return true;
    }
    return false;
}

Diagnoses checkPrograms(const platform::Bundle& framework) {
    Diagnoses found;
    const std::string alert =
        framework.resourcePath() + "/UtiliaCommon.bundle/Contents/Linux/utilia-alert";
    if (!platform::FileManager::isExecutableFileAtPath(alert)) {
        found.push_back({kPrograms, Severity::Warning, "the window of alerts is missing: " + alert,
                         "Install utiliacommon-alert; without it alerts are shown on the terminal "
                         "only."});
    }
    for (const char* const program : {"bash", "bsdtar", "curl"}) {
        if (isInSearchPath(program)) continue;
        found.push_back(
            {kPrograms, Severity::Warning,
             std::string(program) + " is not installed, so that no usage report can be sent",
             std::string("Install ") +
                 (program == std::string_view("bsdtar") ? "libarchive-tools" : program) +
                 ". Reports wait until then."});
    }
    if (found.empty())
        found.push_back({kPrograms, Severity::Good, "those that the framework uses are there", ""});
    return found;
}

}  // namespace

Diagnoses checkPolicy() {
    const std::string path = KAVPathHelper::filePath();
    if (platform::FileManager::isNothingAtPath(path)) {
        return {{kPolicy, Severity::Good, path + " does not exist: nothing is restricted", ""}};
    }
    Diagnoses found;
    for (const Finding& finding : checkSettingsFile()) {
        std::string place = finding.path;
        if (finding.position.line > 0) {
            place += ", line " + std::to_string(finding.position.line) + ", column " +
                     std::to_string(finding.position.column);
        }
        const Severity severity = finding.severity == Finding::Severity::Error ? Severity::Error
                                  : finding.severity == Finding::Severity::Warning
                                      ? Severity::Warning
                                      : Severity::Notice;
        found.push_back({kPolicy, severity, place + ": " + finding.message,
                         "Ask the administrator of this machine; \"utiliactl admin check\" checks "
                         "what has been changed."});
    }
    if (!found.empty()) return found;
    return {{kPolicy, Severity::Good, path + " is in order", ""}};
}

Diagnoses checkInstallation() {
    const platform::Bundle* const framework = platform::Bundle::frameworkBundle();
    if (!framework) {
        return {{kModules, Severity::Error, "the framework's bundle is not where it belongs",
                 "Install the library again."}};
    }
    Diagnoses found = checkModules(*framework);
    const Diagnoses programs = checkPrograms(*framework);
    found.insert(found.end(), programs.begin(), programs.end());
    return found;
}

}  // namespace utilia::control
