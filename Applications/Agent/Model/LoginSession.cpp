#include "Applications/Agent/Model/LoginSession.h"

#include <cstdlib>
#include <fstream>

#include "Common/Foundation/PathFunctions.h"
#include "Common/Logging/Log.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/FileManager.h"
#include "Common/Platform/Workspace.h"
#include "Common/UtiliaCommon/Auxiliary/CommonAuxiliary.h"
#include "Common/UtiliaCommon/LoginItems/UtiliaToolLauncher.h"
#include "Common/UtiliaCommon/Scheduler/AgentScheduler.h"

namespace utilia::agent {
namespace {

using platform::FileManager;

constexpr std::string_view kFileName = "/agent-login";
constexpr std::size_t kMaximumSize = 4096;
constexpr std::string_view kBegun = "begun\n";
constexpr std::string_view kLauncher = "com.korvane.utilia.ToolLauncher";

std::string nameOf(const LoginSession::Number& session) {
    std::ifstream file("/proc/sys/kernel/random/boot_id");
    std::string boot;
    std::getline(file, boot);
    return "session " + session.value_or("unknown") + "\nboot " + boot + "\n";
}

Result<void> remember(const std::string& folder, const std::string& login) {
    return FileManager::writeAtomically(folder + std::string(kFileName),
                                        Data(login.begin(), login.end()));
}

}  // namespace

LoginSession::Number LoginSession::numberInEnvironment() {
    const char* const session = std::getenv("XDG_SESSION_ID");
    if (!session || !*session) return std::nullopt;
    return session;
}

bool LoginSession::isNew(const Number& session) {
    const auto folder = FileManager::runtimeFolder();
    if (!folder) {
        KULogVariadic("Login: there is no runtime folder, so that no tools are started");
        return false;
    }
    const std::string login = nameOf(session);
    const auto seen = FileManager::contentsAtPath(*folder + std::string(kFileName), kMaximumSize);
    const std::string before = seen ? std::string(seen->begin(), seen->end()) : std::string();
    if (before == login) return false;
    // The login manager may not answer for a moment. One that was acted on in this boot is then taken for the same.
    const std::string boot = login.substr(login.find('\n'));
    if (!session && before.ends_with(boot)) return false;
    if (session && before == nameOf(std::nullopt)) {
        // Its number has only now been learnt.
        if (const auto written = remember(*folder, login); !written)
            KULogVariadic("Login: %@", written.error());
        return false;
    }
    if (const auto written = remember(*folder, login + std::string(kBegun)); !written) {
        KULogVariadic("Login: no tools are started: %@", written.error());
        return false;
    }
    return true;
}

bool LoginSession::isBringingUsUp() {
    const platform::Bundle* const bundle = platform::Bundle::mainBundle();
    if (bundle && CommonAuxiliary::sharedInstance().findAppInLoginItems(bundle->bundlePath()))
        return true;
    return !platform::RunningApplication::runningApplicationsWithBundleIdentifier(kLauncher)
                .empty();
}

void LoginSession::finish(const Number& session) {
    const auto folder = FileManager::runtimeFolder();
    if (!folder) return;
    if (const auto written = remember(*folder, nameOf(session)); !written)
        KULogVariadic("Login: the agent's next start starts the tools again: %@", written.error());
}

std::vector<std::string> LoginSession::toolsToStart(const std::vector<ToolEntry>& tools) {
    std::vector<std::string> wanted;
    for (const ToolEntry& tool : tools) {
        if (!tool.isReady()) continue;
        const std::string name = stringByDeletingPathExtension(lastPathComponent(tool.path));
        if (AgentScheduler::shouldLaunchAtLoginByName(name, tool.identifier) &&
            !UtiliaToolLauncher::isToolInLaunchAtLogin(tool.identifier)) {
            wanted.push_back(tool.identifier);
        }
    }
    return wanted;
}

}  // namespace utilia::agent
