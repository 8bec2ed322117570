#include "Applications/TerminalAgent/Agent.h"

#include <iomanip>
#include <iostream>
#include <optional>

#include "Applications/TerminalAgent/ToolReport.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/Workspace.h"
#include "Common/UtiliaCommon/UtiliaCommon.h"

namespace utilia::agent {
namespace {

using platform::Application;
using platform::Bundle;
using platform::Workspace;
using Property = ToolDataAgentProvider::Property;

constexpr std::string_view kToolsKey = "AgentTools";

std::vector<std::string> knownTools() {
    std::vector<std::string> identifiers;
    const Bundle* const bundle = Bundle::mainBundle();
    const auto listed = bundle ? bundle->infoDictionary().array(kToolsKey) : std::nullopt;
    for (const Value& identifier : listed.value_or(Array())) {
        if (identifier.string()) identifiers.push_back(*identifier.string());
    }
    return identifiers;
}

std::optional<std::string> canonicalName(const std::string& bundlePath) {
    const auto bundle = Bundle::bundleWithPath(bundlePath);
    const auto capabilities =
        bundle ? bundle->infoDictionary().dictionary("ToolCapabilities") : std::nullopt;
    return capabilities ? capabilities->string("CanonicalName") : std::nullopt;
}

}  // namespace

void Agent::start() {
    for (const std::string& identifier : knownTools()) watch(identifier);
}

void Agent::watch(const std::string& bundleIdentifier) {
    const auto path = Workspace::URLForApplicationWithBundleIdentifier(bundleIdentifier);
    if (!path) {
        print(bundleIdentifier + " is not installed");
        return;
    }
    auto tool = std::make_shared<ToolDataAgentProvider>();
    tool->setupWithToolURL(*path, bundleIdentifier, canonicalName(*path));
    print("watching " + toolTitle(*tool) + " at " + *path);

    // The observation ends with this object, and the proxy outlives it.
    Handle observation = tool->observe([this, &watched = *tool](Property property) {
        if (const auto line = describeProperty(watched, property); !line.empty()) print(line);
    });
    tools_.push_back({tool, std::move(observation)});

    tool->setToolIconNeeded(true);
    tool->setMenuIconNeeded(true);
    tool->requestStatus();
}

bool Agent::applicationShouldHandleReopen(bool, const std::vector<std::string>& arguments) {
    execute(arguments);
    return false;
}

void Agent::silentUpdateResources() { print("a tool asks to fetch its resources anew"); }

void Agent::execute(const std::vector<std::string>& arguments) {
    // What UtiliaCommon::showAgentUI() asks for; to a terminal program it is the same as no command.
    const bool isWithoutCommand = arguments.empty() || arguments[0] == kShowUIArgument;
    const std::string verb = isWithoutCommand ? "show" : arguments[0];
    if (arguments.size() <= 1 && verb == "quit") {
        Application::sharedApplication().terminate();
    } else if (arguments.size() <= 1 && verb == "show") {
        for (const Watched& watched : tools_) printEverything(*watched.tool);
    } else if (ToolDataAgentProvider* const tool =
                   arguments.size() == 2 ? find(arguments[1]) : nullptr) {
        if (!execute(verb, *tool)) print(verb + " " + arguments[1] + ": could not be done");
    } else {
        print(verb + ": no such command, or no such tool");
    }
}

bool Agent::execute(const std::string& verb, ToolDataAgentProvider& tool) {
    if (verb == "show") {
        printEverything(tool);
    } else if (verb == "launch") {
        const auto launched = Workspace::launchAppWithBundleIdentifier(
            tool.bundleId(), platform::WorkspaceLaunchOptions::Async);
        if (!launched) print(launched.error().description);
        return launched.has_value();
    } else if (verb == "status") {
        tool.requestStatus();
    } else if (verb == "click") {
        return tool.sendCommand(AgentMessage::MenuIconClicked);
    } else if (verb == "off") {
        return tool.sendCommand(AgentMessage::TurnToolOff);
    } else {
        return false;
    }
    return true;
}

ToolDataAgentProvider* Agent::find(const std::string& title) const {
    for (const Watched& watched : tools_) {
        if (toolTitle(*watched.tool) == title) return watched.tool.get();
    }
    return nullptr;
}

void Agent::print(const std::string& line) const {
    const std::chrono::duration<double> age = std::chrono::steady_clock::now() - started_;
    std::cout << std::fixed << std::setprecision(2) << std::setw(6) << age.count() << "  " << line
              << std::endl;
}

void Agent::printEverything(const ToolDataAgentProvider& tool) const {
    for (const Property property : {Property::ToolPort, Property::Status, Property::ToolIcon,
                                    Property::MenuIcon, Property::MenuText}) {
        print(describeProperty(tool, property));
    }
}

}  // namespace utilia::agent
