#include "Common/UtiliaCommon/UtiliaCommon.h"

#include <cstdlib>

#include "Common/Logging/CallbackGuard.h"
#include "Common/Logging/Log.h"
#include "Common/Platform/Alert.h"
#include "Common/Platform/Application.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/ProcessInfo.h"
#include "Common/Platform/RunLoop.h"
#include "Common/Platform/StringComparison.h"
#include "Common/Platform/Workspace.h"
#include "Common/UtiliaCommon/AdminSettings/ToolSets.h"
#include "Common/UtiliaCommon/ExtendedLogging.h"
#include "Common/UtiliaCommon/FrameworkStartInternal.h"
#include "Common/UtiliaCommon/LocalizedTexts.h"
#include "Common/UtiliaCommon/LoginItems/UtiliaToolLauncher.h"
#include "Common/UtiliaCommon/StartUpVerdict.h"
#include "Common/UtiliaCommon/ToolDataProvider/PortProtocol.h"
#include "Common/UtiliaCommon/ToolDataProvider/ToolDataClientProvider.h"
#include "Common/UtiliaCommon/ToolRequirements.h"
#include "Common/UtiliaCommon/Web/HostReachability.h"

// All of this runs before main, in a process whose toolkit, locale and loop do not exist yet, and in
// which nobody could catch an exception. So nothing here needs them, and each step is guarded.
//
// The framework ends a process at three places, all below: a tool that is restricted, one whose
// requirements are not met, and one that was only started to end. Each is a thin shell around a
// verdict; deciding is startUpVerdict()'s.
//
// Who is told by the main bundle's identifier. A process without one (a program that is no
// application, but loads the library) is no agent; the checks find nothing to hold against it.
//
// What cannot be checked does not stop a tool: without settings that can be read nothing is
// restricted, and the same holds when memory runs out on the way.

namespace utilia {
namespace {

using platform::Application;
using platform::Bundle;
using platform::Workspace;

constexpr std::string_view kResourceBundle = "UtiliaCommon";
constexpr std::string_view kResourceBundleType = "bundle";

std::unique_ptr<UtiliaCommon>& sharedFacade() {
    // Never destroyed: applications may call while the process ends.
    static auto* const facade = new std::unique_ptr<UtiliaCommon>;
    return *facade;
}

std::optional<std::string> mainBundleIdentifier() {
    const Bundle* const bundle = Bundle::mainBundle();
    return bundle ? bundle->bundleIdentifier() : std::nullopt;
}

bool isAgent() {
    const auto identifier = mainBundleIdentifier();
    return identifier && platform::isCaseInsensitiveEqual(*identifier, kAgentBundleIdentifier);
}

ToolRestriction restrictionOfThisTool() {
    const auto tools = ToolSets::createSharedInstance();
    ToolRestriction answer;
    answer.isAllowed = tools->isToolAllowedWithBundleId(mainBundleIdentifier().value_or(""),
                                                        &answer.isInSet, &answer.isRestricted);
    return answer;
}

[[noreturn]] void endAsRefused() { std::exit(EXIT_SUCCESS); }

void endWithTheFirstTurnOfTheMainLoop() {
    Application::sharedApplication().setLaunchedToTerminate();
    platform::MainQueue::async(
        [] { Application::sharedApplication().terminateAndExit([] { std::exit(EXIT_SUCCESS); }); });
}

}  // namespace

const UtiliaCommon* UtiliaCommon::utiliaCommon() { return sharedFacade().get(); }

ToolDataClientProvider& UtiliaCommon::toolDataClientProvider() {
    static auto* const client = new ToolDataClientProvider;
    return *client;
}

std::unique_ptr<UtiliaCommon> UtiliaCommon::initForAgent() {
    return std::unique_ptr<UtiliaCommon>(new UtiliaCommon);
}

std::unique_ptr<UtiliaCommon> UtiliaCommon::init() {
    std::unique_ptr<UtiliaCommon> facade(new UtiliaCommon);
    const StartUpChecks checks{restrictionOfThisTool,
                               [] { return ToolRequirements::checkToolCanRun(false); }};
    switch (startUpVerdict(platform::ProcessInfo::arguments(), checks)) {
    case StartUpVerdict::Run:
        break;
    case StartUpVerdict::ShutOff:
        endWithTheFirstTurnOfTheMainLoop();
        break;
    case StartUpVerdict::Restricted:
        facade->showRestrictionAlertAndExit();
    case StartUpVerdict::RequirementsNotMet:
        KULogVariadic("Tool cannot run due to pre-requirements not match. Terminate.");
        endAsRefused();
    }
    return facade;
}

void UtiliaCommon::showRestrictionAlertAndExit() const {
    KULogVariadic("Tool with bundleId %@ is restricted.", mainBundleIdentifier());
    // Whatever becomes of the alert, the tool does not run.
    runGuarded("The alert", [] {
        platform::Alert alert;
        alert.setMessageText(localizedText(kRestrictedText));
        alert.setAlertStyle(platform::AlertStyle::Critical);
        alert.addButtonWithTitle(localizedText(kOkText));
        alert.runModal();
    });
    endAsRefused();
}

void UtiliaCommon::showAgentUI() const {
    const auto agent = Workspace::URLForApplicationWithBundleIdentifier(kAgentBundleIdentifier);
    if (!agent) return;
    (void)Workspace::launchApplicationAtPath(*agent, platform::WorkspaceLaunchOptions::None,
                                             {std::string(kShowUIArgument)});
}

std::optional<std::string> UtiliaCommon::pathForAuxiliaryExecutable(std::string_view name) const {
    const Bundle* const framework = Bundle::frameworkBundle();
    const auto path =
        framework ? framework->pathForResource(kResourceBundle, kResourceBundleType) : std::nullopt;
    const auto resources = path ? Bundle::bundleWithPath(*path) : nullptr;
    return resources ? resources->pathForAuxiliaryExecutable(name) : std::nullopt;
}

void initializeFramework() noexcept {
    runGuarded("Start-up", [] { installProductLogging(); });
    runGuarded("Start-up", [] {
        sharedFacade() = isAgent() ? UtiliaCommon::initForAgent() : UtiliaCommon::init();
    });
    // Also when memory ran out: whoever asks for the facade finds one.
    runGuarded("Start-up", [] {
        if (!sharedFacade()) sharedFacade() = UtiliaCommon::initForAgent();
    });
    runGuarded("Start-up", [] {
        if (Application::sharedApplication().isLaunchedToTerminate()) return;
        // A failure is logged by those applications that take part: by finishLaunching().
        (void)platform::RunningApplication::registerCurrentApplication();
    });
    runGuarded("Start-up", [] { const HostReachability watchesNothing; });
    runGuarded("Start-up", [] { UtiliaToolLauncher::migrate(); });
}

}  // namespace utilia
