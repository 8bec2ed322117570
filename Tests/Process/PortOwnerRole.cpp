// Processes that only hold a name.

#include <signal.h>

#include "Common/Platform/Application.h"
#include "Common/Platform/Port.h"
#include "Common/Platform/RunLoop.h"
#include "Common/Platform/Workspace.h"
#include "Common/UtiliaCommon/ToolDataProvider/ToolDataServerProvider.h"
#include "Tests/Support/ChildRole.h"

namespace utilia::test {
namespace {

using platform::Port;
using platform::PortNameServer;

// Holds the name of its first argument and never reads what is sent there.
UTILIA_CHILD_ROLE(deafPort) {
    const auto port = Port::port();
    port->scheduleInRunLoop();
    if (!PortNameServer::systemDefaultPortNameServer().registerPort(port, self.arguments.at(0)))
        return 1;
    self.say("registered");
    self.waitForLine();
    return 0;
}

// Agents as they are launched: without a channel to the test, they live as long as who launched
// them, more exactly as long as that thread.
UTILIA_CHILD_ROLE(launchedAgent) {
    // Before the port, as the start-up checks do it: who sees the port finds the agent running.
    if (!platform::RunningApplication::registerCurrentApplication()) return 1;
    ToolDataServerProvider::sharedInstance();
    return platform::Application::sharedApplication().run();
}

UTILIA_CHILD_ROLE(launchedAgentWithoutPort) {
    return platform::Application::sharedApplication().run();
}

}  // namespace
}  // namespace utilia::test
