#include <algorithm>

#include "Applications/utiliactl/Doctor/Diagnosis.h"
#include "Applications/utiliactl/PlainText.h"
#include "Common/Platform/FileManager.h"
#include "Common/Platform/Port.h"
#include "Common/Platform/Workspace.h"
#include "Common/UtiliaCommon/ToolDataProvider/PortProtocol.h"

namespace utilia::control {
namespace {

using platform::PortNameServer;
using Severity = Diagnosis::Severity;
using Registrations = std::vector<PortNameServer::Registration>;

constexpr const char* kFolder = "runtime folder";
constexpr const char* kAgent = "agent";
constexpr const char* kPorts = "ports";

Diagnosis diagnoseAgent(const Registrations& ports) {
    const bool isLive = std::any_of(ports.begin(), ports.end(), [](const auto& port) {
        return port.isLive && port.name == kAgentPortName;
    });
    const std::string identifier(kAgentBundleIdentifier);
    const auto running =
        platform::RunningApplication::runningApplicationsWithBundleIdentifier(identifier);
    if (isLive) return {kAgent, Severity::Good, "it runs, and tools reach it", ""};
    if (!running.empty()) {
        return {kAgent, Severity::Error,
                "it runs, but it holds no port, so that no tool reaches it",
                "End it and start it again."};
    }
    if (!platform::Workspace::URLForApplicationWithBundleIdentifier(identifier)) {
        return {kAgent, Severity::Warning,
                "it is not installed: no application has the identifier " + inQuotes(identifier),
                "Install the applications, or have their desktop entries in a folder of "
                "XDG_DATA_DIRS."};
    }
    return {kAgent, Severity::Notice, "it does not run",
            "Start Korvane Utilia from the desktop's menu of applications, or with "
            "\"korvane-utilia\" in a terminal; \"utiliactl login\" has tools started at login."};
}

Diagnosis diagnosePorts(const Registrations& ports) {
    const auto live =
        std::count_if(ports.begin(), ports.end(), [](const auto& port) { return port.isLive; });
    std::string message = std::to_string(live) + " in use";
    const auto stale = static_cast<std::ptrdiff_t>(ports.size()) - live;
    if (stale > 0) {
        message +=
            "; " + std::to_string(stale) + " of earlier owners, which the next ones take over";
    }
    return {kPorts, Severity::Good, message, ""};
}

}  // namespace

Diagnoses checkRuntime() {
    const auto folder = platform::FileManager::findRuntimeFolder();
    if (!folder) {
        return {{kFolder, Severity::Error, "it cannot be used: " + folder.error().description,
                 "Log in again, or have XDG_RUNTIME_DIR name a folder that is yours and nobody "
                 "else's (mode 0700)."}};
    }
    const Registrations ports = PortNameServer::systemDefaultPortNameServer().registrations();
    return {{kFolder, Severity::Good, *folder, ""}, diagnoseAgent(ports), diagnosePorts(ports)};
}

}  // namespace utilia::control
