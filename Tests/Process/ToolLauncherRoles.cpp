#include <string>

#include <fcntl.h>
#include <unistd.h>

#include "Common/Platform/Port.h"
#include "Common/Platform/Workspace.h"
#include "Common/UtiliaCommon/ToolDataProvider/PortProtocol.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/ReportPipe.h"

namespace utilia::launcher {
namespace {

using platform::RunningApplication;
using test::ReportPipe;

// What outlives its launcher ends with the test: it holds on to a named pipe that the test has open.
void waitForEndOf(const std::string& leash) {
    const int descriptor = open(leash.c_str(), O_RDONLY | O_CLOEXEC);
    char byte = 0;
    while (read(descriptor, &byte, 1) > 0) {
    }
}

// Passes once the test opens the named pipe.
void passGate(const std::string& gate) { close(open(gate.c_str(), O_RDONLY | O_CLOEXEC)); }

// A tool: reports that it has begun, passes the gate, reports that it is up, and is listed as
// running only after that. So what a launcher starts after it saw it run is reported later.
// Arguments: report pipe, gate, leash, identifier, and one more when the test started it itself.
UTILIA_CHILD_ROLE(listedTool) {
    test::outliveLauncher();
    const std::string& identifier = self.arguments.at(3);
    ReportPipe::report(self.arguments[0], "begin " + identifier);
    passGate(self.arguments[1]);
    ReportPipe::report(self.arguments[0], "up " + identifier);
    if (!RunningApplication::registerCurrentApplication()) return 1;
    if (self.arguments.size() > 4) self.say("up");
    waitForEndOf(self.arguments[2]);
    return 0;
}

// An agent that is listed first and has its port only behind the gate.
UTILIA_CHILD_ROLE(slowAgent) {
    test::outliveLauncher();
    ReportPipe::report(self.arguments.at(0), "begin agent");
    if (!RunningApplication::registerCurrentApplication()) return 1;
    passGate(self.arguments[1]);
    ReportPipe::report(self.arguments[0], "up agent");
    const auto port = platform::Port::port();
    if (!platform::PortNameServer::systemDefaultPortNameServer().registerPort(port, kAgentPortName))
        return 1;
    waitForEndOf(self.arguments[2]);
    return 0;
}

UTILIA_CHILD_ROLE(failAtOnce) { return 3; }
}  // namespace
}  // namespace utilia::launcher
