#include "Tests/Process/Tools/RunningTool.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "Common/Platform/Bundle.h"
#include "Common/Platform/RunLoop.h"
#include "Tests/Support/Places.h"

namespace utilia::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kPython = "/usr/bin/python3";  // the one that has the bindings
constexpr const char* kNoBus = "unix:path=/nonexistent/bus";

std::string programOf(const std::string& bundlePath) {
    const auto bundle = platform::Bundle::bundleWithPath(bundlePath);
    const auto program = bundle ? bundle->executablePath() : std::nullopt;
    if (!program) throw std::runtime_error("there is no application at " + bundlePath);
    return *program;
}

// How often its threads have woken up by now.
long wakeUps(const ChildProcess& tool) {
    long sum = 0;
    const fs::path threads = "/proc/" + std::to_string(tool.pid()) + "/task";
    for (const auto& thread : fs::directory_iterator(threads)) {
        std::ifstream status(thread.path() / "status");
        for (std::string line; std::getline(status, line);) {
            const std::size_t colon = line.find("ctxt_switches:");
            if (colon != std::string::npos) sum += std::stol(line.substr(line.find(':') + 1));
        }
    }
    return sum;
}

}  // namespace

ToolSession::ToolSession() {
    setenv("DBUS_SESSION_BUS_ADDRESS", sessionBus_->address().c_str(), 1);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", systemBus_.address().c_str(), 1);
}

ChildProcess ToolSession::startServices(const std::vector<std::string>& services) const {
    std::vector<std::string> arguments{test::places::kDesktopServices};
    arguments.insert(arguments.end(), services.begin(), services.end());
    auto child = ChildProcess::program(kPython, arguments, {.diesWithTest = true});
    if (child.waitForLine() != "ready") throw std::runtime_error("the services do not start");
    return child;
}

ChildProcess ToolSession::start(const std::string& bundle,
                                const std::vector<std::string>& arguments,
                                std::map<std::string, std::string> environment) const {
    ChildProcessOptions options;
    options.environment = std::move(environment);
    options.environment.insert(
        {{"LANGUAGE", "en"}, {"DISPLAY", "\x01"}, {"WAYLAND_DISPLAY", "\x01"}});
    options.standardError = home_.path() / "log";
    options.ownSession = true;
    options.diesWithTest = true;
    return ChildProcess::program(programOf(bundle), arguments, options);
}

std::map<std::string, std::string> ToolSession::withoutBuses() {
    return {{"DBUS_SESSION_BUS_ADDRESS", kNoBus}, {"DBUS_SYSTEM_BUS_ADDRESS", kNoBus}};
}

void ToolSession::send(const std::string& bundlePath, std::uint32_t id,
                       const std::vector<std::string>& components) {
    const auto bundle = platform::Bundle::bundleWithPath(bundlePath);
    if (!bundle) throw std::runtime_error("there is no application at " + bundlePath);
    const auto capabilities = bundle->infoDictionary().dictionary("ToolCapabilities");
    const auto canonicalName = capabilities ? capabilities->string("CanonicalName") : std::nullopt;
    const std::string port = toolPortName(canonicalToolPath(bundle->bundlePath(), canonicalName));
    // The tool registers it a moment after its start.
    if (!eventually([&] { return RecordingPort::send(port, id, components); }))
        throw std::runtime_error("the tool has no port");
}

void ToolSession::askForMenu(const std::string& bundle) {
    send(bundle, 102, {std::string(1, '\1')});
}

std::string ToolSession::nextText() {
    for (;;) {
        auto messages = agent_.take(1);
        if (messages.empty()) return "";
        RecordedMessage& message = messages.front();
        if (message.id == 102 && message.components.size() == 3) {
            menuIcon_ = message.components[1];
            isMenuIconTemplate_ = message.components[2] == std::string(1, '\1');
        }
        if (message.id == 108 && message.components.size() == 2) return message.components[1];
    }
}

bool ToolSession::comesToSay(const std::string& text) { return nextTextThatMatches(text) == text; }

std::string ToolSession::nextTextThatMatches(const testing::Matcher<const std::string&>& matcher) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (std::chrono::steady_clock::now() < deadline) {
        const std::string next = nextText();
        if (next.empty() || matcher.Matches(next)) return next;
    }
    return "";
}

void ToolSession::serve(std::chrono::milliseconds time) {
    platform::RunLoop::currentRunLoop().runUntil([] { return false; }, time);
}

bool ToolSession::fallsAsleep(const ChildProcess& tool, std::chrono::milliseconds time) {
    return eventually([&] {
        const long before = wakeUps(tool);
        serve(time);
        return wakeUps(tool) == before;
    });
}

std::string ToolSession::log() const {
    std::ifstream file(home_.path() / "log");
    return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace utilia::test
