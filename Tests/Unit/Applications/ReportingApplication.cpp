#include "Tests/Unit/Applications/ReportingApplication.h"

#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

#include "Common/Platform/Application.h"
#include "Common/Platform/NotificationCenter.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/ReportPipe.h"

namespace utilia::platform {
namespace {

using test::ReportPipe;

std::string joined(const std::string& first, const std::vector<std::string>& rest) {
    std::string line = first;
    for (const std::string& argument : rest) line += "|" + argument;
    return line;
}

class ReportingDelegate final : public ApplicationDelegate {
public:
    explicit ReportingDelegate(std::string pipe) : pipe_(std::move(pipe)) {}

    bool applicationShouldHandleReopen(bool, const std::vector<std::string>& arguments) override {
        ReportPipe::report(pipe_, joined("reopen", arguments));
        return true;
    }

private:
    std::string pipe_;
};

UTILIA_CHILD_ROLE(reportingApplication) {
    return runReportingApplication(self.arguments.at(0),
                                   {self.arguments.begin() + 1, self.arguments.end()});
}

UTILIA_CHILD_ROLE(lingeringApplication) {
    return runReportingApplication(self.arguments.at(0),
                                   {self.arguments.begin() + 2, self.arguments.end()},
                                   self.arguments.at(1));
}

}  // namespace

void passGate(const std::string& gate) { close(open(gate.c_str(), O_RDONLY | O_CLOEXEC)); }

void openGate(const std::string& gate) { close(open(gate.c_str(), O_WRONLY | O_CLOEXEC)); }

int runReportingApplication(const std::string& pipe, const std::vector<std::string>& arguments,
                            const std::string& gate) {
    // A launch in the background comes from a thread that ends as soon as the application is listed. It gives no channel.
    if (fcntl(test::kChildChannel, F_GETFD) < 0) test::outliveLauncher();
    auto& application = Application::sharedApplication();
    auto& center = NotificationCenter::defaultCenter();
    ReportingDelegate delegate(pipe);
    application.setDelegate(&delegate);
    const Handle up =
        center.addObserver(NSApplicationDidFinishLaunchingNotification, nullptr, [&](const void*) {
            ReportPipe::report(pipe, joined("up " + std::to_string(getpid()), arguments));
        });
    const Handle end =
        center.addObserver(NSApplicationWillTerminateNotification, nullptr, [&](const void*) {
            ReportPipe::report(pipe, "end");
            if (gate.empty()) return;
            passGate(gate);
            // Whoever waits for the end does not wait for what tools of the tests do then, like looking for leaks.
            _exit(EXIT_SUCCESS);
        });
    return application.run();
}

pid_t processOf(const std::optional<std::string>& upLine) {
    return upLine && upLine->starts_with("up ") ? std::stoi(upLine->substr(3)) : -1;
}

}  // namespace utilia::platform
