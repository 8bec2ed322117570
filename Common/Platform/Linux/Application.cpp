#include "Common/Platform/Application.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <optional>
#include <thread>
#include <utility>

#include <unistd.h>

#include "Common/Logging/Log.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/Linux/FileName.h"
#include "Common/Platform/Linux/Folders.h"
#include "Common/Platform/Linux/InstancePort.h"
#include "Common/Platform/Linux/TerminationSignals.h"
#include "Common/Platform/NotificationCenter.h"
#include "Common/Platform/Port.h"
#include "Common/Platform/ProcessInfo.h"
#include "Common/Platform/RunLoop.h"
#include "Common/Platform/Workspace.h"

// The end of an application has many causes (signals, the agent's turn-off message, the host, other
// threads), and will-terminate must be posted exactly once, on the main thread, while ports still
// work: terminate() is the one place, and everything else leads there through the main loop. A
// signal that comes while the application ends changes nothing; a process that is stuck is ended by
// SIGKILL, as every session manager does after its grace.
//
// The instance port is given up as the first step of the end. Whoever starts the application after
// that moment is the first instance again, instead of handing its arguments to a process that no
// longer serves anybody.
//
// terminate() returns, because a host toolkit has to leave its loop by itself, and what lies on the
// stack of main() is destroyed then. A process that must not go on after its loop is ended behind
// it: by run() where that is the loop, else by a timer of the main loop, which only fires in a host
// that has not left its loop.

namespace utilia::platform {
namespace {

constexpr std::chrono::milliseconds kHandOverTimeout{2000};
constexpr std::chrono::milliseconds kClaimTimeout{500};
constexpr std::chrono::milliseconds kRetryInterval{5};

bool isMainThread() { return gettid() == getpid(); }

}  // namespace

bool ApplicationDelegate::applicationShouldHandleReopen(bool, const std::vector<std::string>&) {
    return true;
}

void ApplicationDelegate::silentUpdateResources() {
    KULogVariadic("Application: asked to update its resources, which this application does not do");
}

struct Application::Implementation {
    ApplicationDelegate* delegate = nullptr;
    std::function<void()> quit;
    std::function<bool()> windowsVisible;
    std::function<void()> activate;
    std::unique_ptr<InstancePort> instance;
    std::function<void()> exit;
    Handle exitTimer;
    std::optional<std::vector<std::string>> handedOverArguments;
    bool launchedToTerminate = false;
    bool finishedLaunching = false;
    std::atomic<bool> terminating{false};
};

Application::Application() : implementation_(std::make_unique<Implementation>()) {}

Application::~Application() = default;

Application& Application::sharedApplication() {
    static Application* const application = new Application;
    return *application;
}

void Application::setDelegate(ApplicationDelegate* delegate) {
    implementation_->delegate = delegate;
}

ApplicationDelegate* Application::delegate() const { return implementation_->delegate; }

void Application::setQuitHandler(std::function<void()> quit) {
    implementation_->quit = std::move(quit);
}

void Application::setWindowsVisibleHandler(std::function<bool()> windowsVisible) {
    implementation_->windowsVisible = std::move(windowsVisible);
}

void Application::setActivateHandler(std::function<void()> activate) {
    implementation_->activate = std::move(activate);
}

namespace {

enum class Instance { First, HandedOver };

std::vector<std::string> ownArguments() {
    std::vector<std::string> arguments = ProcessInfo::arguments();
    if (!arguments.empty()) arguments.erase(arguments.begin());
    return arguments;
}

// Makes this process the one instance of its bundle, or hands its arguments to the process that is.
Instance becomeInstance(const Bundle& bundle, const std::string& identifier,
                        const std::vector<std::string>& arguments, InstancePort::Reopen reopen,
                        std::unique_ptr<InstancePort>& port) {
    // Without a place for ports there is nobody to hand over to; being listed reports the reason.
    if (!ensureRuntimeFolder()) return Instance::First;
    const std::string name = InstancePort::nameForBundle(identifier, bundle.bundlePath());
    const auto deadline = std::chrono::steady_clock::now() + kClaimTimeout;
    for (;;) {
        port = InstancePort::claim(name, reopen);
        if (port) return Instance::First;
        const auto handed = InstancePort::handOver(name, arguments, kHandOverTimeout);
        if (handed) return Instance::HandedOver;
        // The other instance ended just now, or has registered its name and not yet opened the port
        // behind it.
        const bool retry = handed.error().is(UtiliaErrorCode::NotFound) &&
                           std::chrono::steady_clock::now() < deadline;
        if (!retry) {
            KULogVariadic("Application: starts beside what may be another instance: %@",
                          handed.error());
            return Instance::First;
        }
        std::this_thread::sleep_for(kRetryInterval);
    }
}

}  // namespace

void Application::finishLaunching() {
    Implementation& self = *implementation_;
    if (self.finishedLaunching) return;
    const Bundle* const bundle = self.launchedToTerminate ? nullptr : Bundle::mainBundle();
    const auto identifier = bundle ? bundle->bundleIdentifier() : std::nullopt;
    if (identifier && isUsableBundleIdentifier(*identifier)) {
        const auto takeArguments = [this](const std::vector<std::string>& arguments) {
            reopen(arguments);
        };
        const auto& arguments =
            self.handedOverArguments ? *self.handedOverArguments : ownArguments();
        if (becomeInstance(*bundle, *identifier, arguments, takeArguments, self.instance) ==
            Instance::HandedOver) {
            std::exit(EXIT_SUCCESS);
        }
        if (const auto listed = RunningApplication::registerCurrentApplication(); !listed) {
            KULogVariadic("Application: is not listed as running: %@", listed.error());
        }
    }
    if (const auto installed = installTerminationSignals([this] { terminate(); }); !installed) {
        KULogVariadic("Application: signals will end it without notice: %@", installed.error());
    }
    self.finishedLaunching = true;
    NotificationCenter::defaultCenter().post(NSApplicationDidFinishLaunchingNotification, this);
}

bool Application::isFinishedLaunching() const { return implementation_->finishedLaunching; }

void Application::setHandedOverArguments(std::vector<std::string> arguments) {
    implementation_->handedOverArguments = std::move(arguments);
}

void Application::setLaunchedToTerminate() { implementation_->launchedToTerminate = true; }

bool Application::isLaunchedToTerminate() const { return implementation_->launchedToTerminate; }

int Application::run() {
    finishLaunching();
    // A stop ends the innermost run only; asking for the state as well ends this one after a nested
    // one.
    while (!isTerminating()) {
        RunLoop::mainRunLoop().runUntil([this] { return isTerminating(); },
                                        std::chrono::hours(24 * 365));
    }
    if (implementation_->exit) implementation_->exit();
    return EXIT_SUCCESS;
}

void Application::terminate() {
    if (!isMainThread()) {
        MainQueue::async([this] { terminate(); });
        return;
    }
    Implementation& self = *implementation_;
    if (self.terminating.exchange(true)) return;
    self.instance = nullptr;
    NotificationCenter::defaultCenter().post(NSApplicationWillTerminateNotification, this);
    if (self.quit) {
        self.quit();
    } else {
        RunLoop::mainRunLoop().stop();
    }
}

bool Application::isTerminating() const { return implementation_->terminating; }

void Application::terminateAndExit(std::function<void()> exit) {
    if (!isMainThread()) {
        MainQueue::async([this, exit = std::move(exit)] { terminateAndExit(exit); });
        return;
    }
    Implementation& self = *implementation_;
    if (self.exit) return;
    self.exit = std::move(exit);
    terminate();
    // Not before: what is stored at the end may take its time.
    self.exitTimer = Timer::scheduledTimer(kExitTimeout, false, self.exit);
}

bool Application::hasVisibleWindows() const {
    return implementation_->windowsVisible && implementation_->windowsVisible();
}

void Application::activateIgnoringOtherApps(bool) {
    if (implementation_->activate) implementation_->activate();
}

void Application::reopen(const std::vector<std::string>& arguments) {
    if (delegate()) delegate()->applicationShouldHandleReopen(hasVisibleWindows(), arguments);
    activateIgnoringOtherApps(true);
}

}  // namespace utilia::platform
