#include "Common/UtiliaCommon/ToolRequirements.h"

#include "Common/Logging/Log.h"
#include "Common/Platform/Application.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/Workspace.h"
#include "Common/UtiliaCommon/AgentAlert.h"
#include "Common/UtiliaCommon/ToolDataProvider/PortProtocol.h"

namespace utilia {
namespace {

using platform::RunningApplication;
using platform::Workspace;

bool toolNeedsAgent() {
    const platform::Bundle* const bundle = platform::Bundle::mainBundle();
    const auto capabilities =
        bundle ? bundle->infoDictionary().dictionary("ToolCapabilities") : std::nullopt;
    return capabilities && capabilities->boolean("NeedAgentForWork");
}

}  // namespace

bool ToolRequirements::checkToolCanRun(bool launchWithoutAsking) {
    if (!launchWithoutAsking && !toolNeedsAgent()) return true;
    if (!RunningApplication::runningApplicationsWithBundleIdentifier(kAgentBundleIdentifier)
             .empty()) {
        return true;
    }
    if (!launchWithoutAsking) {
        platform::Application::sharedApplication().activateIgnoringOtherApps(true);
        if (AgentAlert().runModal() == platform::NSAlertSecondButtonReturn) return false;
    }
    const auto launched = Workspace::launchAppWithBundleIdentifier(
        kAgentBundleIdentifier, platform::WorkspaceLaunchOptions::Async);
    if (!launched) KULogVariadic("The agent cannot be launched: %@", launched.error());
    return launched.has_value();
}

}  // namespace utilia
