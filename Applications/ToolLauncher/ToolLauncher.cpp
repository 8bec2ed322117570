#include "Applications/ToolLauncher/ToolLauncher.h"

#include <algorithm>
#include <atomic>
#include <optional>
#include <string_view>
#include <system_error>
#include <thread>

#include "Common/Logging/Log.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/Port.h"
#include "Common/Platform/Workspace.h"
#include "Common/UtiliaCommon/LoginItems/UtiliaToolLauncher.h"
#include "Common/UtiliaCommon/ToolDataProvider/PortProtocol.h"

namespace utilia::launcher {
namespace {

using platform::RunningApplication;
using platform::Workspace;
using platform::WorkspaceLaunchOptions;
using Fate = ToolLauncher::Fate;

constexpr std::chrono::milliseconds kPortInterval{10};

bool isRunning(std::string_view bundleIdentifier) {
    return !RunningApplication::runningApplicationsWithBundleIdentifier(bundleIdentifier).empty();
}

bool needsAgent(const std::string& bundlePath) {
    const auto bundle = platform::Bundle::bundleWithPath(bundlePath);
    const auto capabilities =
        bundle ? bundle->infoDictionary().dictionary("ToolCapabilities") : std::nullopt;
    return capabilities && capabilities->boolean("NeedAgentForWork");
}

bool isAgentsPortThere() {
    const auto ports = platform::PortNameServer::systemDefaultPortNameServer().registrations();
    return std::any_of(ports.begin(), ports.end(),
                       [](const auto& port) { return port.isLive && port.name == kAgentPortName; });
}

void logWhatIsPassedOver(const ToolLauncher::Step& step) {
    switch (step.fate) {
    case Fate::Running:
        KULogVariadic("Tool %@ is not started: it runs already.", step.bundleIdentifier);
        break;
    case Fate::NotInstalled:
        KULogVariadic("Tool %@ is not started: it is not installed.", step.bundleIdentifier);
        break;
    case Fate::Restricted:
        KULogVariadic("Tool %@ is not started: the administrator does not allow it.",
                      step.bundleIdentifier);
        break;
    case Fate::Start:
        break;
    }
}

void startTool(const std::string& tool) {
    // It may have been started since it was looked at; launching it again would bring it to the
    // front.
    if (isRunning(tool)) return;
    const auto launched =
        Workspace::launchAppWithBundleIdentifier(tool, WorkspaceLaunchOptions::None);
    if (!launched) KULogVariadic("Tool %@ cannot be started: %@", tool, launched.error());
}

}  // namespace

// As the tools themselves see it when they start: only the white-list stops one.
bool ToolLauncher::isRestricted(const std::string& tool) const {
    bool isInSet = false;
    bool isLeftOut = false;
    return toolSets_ && !toolSets_->isToolAllowedWithBundleId(tool, &isInSet, &isLeftOut) &&
           isInSet && isLeftOut;
}

ToolLauncher::Step ToolLauncher::stepFor(const std::string& tool) const {
    Step step{.bundleIdentifier = tool};
    const auto path = Workspace::URLForApplicationWithBundleIdentifier(tool);
    if (isRunning(tool)) {
        step.fate = Fate::Running;
    } else if (!path) {
        step.fate = Fate::NotInstalled;
    } else if (isRestricted(tool)) {
        step.fate = Fate::Restricted;
    }
    step.needsAgent = path && needsAgent(*path);
    return step;
}

std::vector<ToolLauncher::Step> ToolLauncher::plan() const {
    std::vector<Step> steps;
    const auto list = UtiliaToolLauncher::getDefaults()->arrayForKey(kLaunchAtLoginToolsKey);
    for (const Value& tool : list.value_or(Array())) {
        const std::string* const identifier = tool.string();
        if (!identifier || std::any_of(steps.begin(), steps.end(), [&](const Step& step) {
                return step.bundleIdentifier == *identifier;
            }))
            continue;
        steps.push_back(stepFor(*identifier));
    }
    return steps;
}

void ToolLauncher::run() {
    setAtWork(true);
    auto steps = plan();
    for (const Step& step : steps) logWhatIsPassedOver(step);
    std::erase_if(steps, [](const Step& step) { return step.fate != Fate::Start; });
    const auto isInNeed = [](const Step& step) { return step.needsAgent; };
    if (std::any_of(steps.begin(), steps.end(), isInNeed) && !prepareAgent()) {
        for (const Step& step : steps) {
            if (step.needsAgent)
                KULogVariadic("Tool %@ is not started: it needs the agent.", step.bundleIdentifier);
        }
        std::erase_if(steps, isInNeed);
    }
    std::vector<std::string> tools;
    for (Step& step : steps) tools.push_back(std::move(step.bundleIdentifier));
    startTools(tools);
    setAtWork(false);
}

void ToolLauncher::stop() {
    bool isEarly = false;
    {
        const std::lock_guard guard(mutex_);
        isEarly = isAtWork_ && !isStopped_;
        isStopped_ = true;
    }
    stopping_.notify_all();
    if (isEarly) KULogVariadic("No further tools are started: the launcher is asked to end.");
}

void ToolLauncher::setAtWork(bool isAtWork) {
    const std::lock_guard guard(mutex_);
    isAtWork_ = isAtWork;
}

bool ToolLauncher::isStopped() {
    const std::lock_guard guard(mutex_);
    return isStopped_;
}

// Answers whether the agent runs, which is what the tools ask for. Its port is waited for so that
// they also find it.
bool ToolLauncher::prepareAgent() {
    const auto deadline = std::chrono::steady_clock::now() + limits_.agentWait;
    if (!isRunning(kAgentBundleIdentifier)) {
        const auto launched = Workspace::launchAppWithBundleIdentifier(
            kAgentBundleIdentifier, WorkspaceLaunchOptions::None);
        if (!launched) {
            KULogVariadic("The agent cannot be started: %@", launched.error());
            return false;
        }
    }
    while (!isAgentsPortThere()) {
        std::unique_lock lock(mutex_);
        if (stopping_.wait_for(lock, kPortInterval, [this] { return isStopped_; })) break;
        if (std::chrono::steady_clock::now() < deadline) continue;
        KULogVariadic("The agent has no port yet. The tools are started without waiting longer.");
        break;
    }
    return isRunning(kAgentBundleIdentifier);
}

void ToolLauncher::startTools(const std::vector<std::string>& tools) {
    std::atomic<std::size_t> next{0};
    const auto work = [&] {
        for (std::size_t i = next++; i < tools.size() && !isStopped(); i = next++)
            startTool(tools[i]);
    };
    // A launch waits until its tool is up, so each thread has one tool on its way.
    std::vector<std::thread> helpers;
    try {
        while (helpers.size() + 1 < std::min(limits_.launchesAtOnce, tools.size()))
            helpers.emplace_back(work);
    } catch (const std::system_error&) {
        // Those that there are do it, or this thread alone.
    }
    work();
    for (std::thread& helper : helpers) helper.join();
}

}  // namespace utilia::launcher
