#include "Common/Platform/Workspace.h"

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>
#include <system_error>
#include <thread>
#include <utility>

#include "Common/Logging/Log.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/FileLock.h"
#include "Common/Platform/Linux/BundleInternal.h"
#include "Common/Platform/Linux/ChildLauncher.h"
#include "Common/Platform/Linux/ChildWatcher.h"
#include "Common/Platform/Linux/DesktopEntry.h"
#include "Common/Platform/Linux/FileName.h"
#include "Common/Platform/Linux/Folders.h"
#include "Common/Platform/Linux/InstancePort.h"
#include "Common/Platform/Linux/RunningList.h"
#include "Common/Platform/Port.h"

// A launch must end with one instance, whoever else launches the same application at that moment.
// So a launcher takes the application's launch lock, looks again whether the application runs, and
// only then starts it. The lock is kept until the new process is listed as running, or has ended,
// or five seconds are over: given up earlier, the next launcher would not see the new process yet
// and start a second one. A launcher that dies gives the lock up with its life; what it started
// still meets the check of Application, which lets one process per bundle through.
//
// An application that runs is handed the arguments at its instance port. Between being listed and
// serving that port, and again while it ends, it runs without one: a launch asks again for up to
// two seconds, and starts the application after all when it has ended meanwhile.
//
// An asynchronous launch does at once what can be done without waiting, which is nearly always
// everything: the lock and the child go to the thread that reaps children. Only when another launch
// is under way, or the running process has no port, a thread of its own goes through the waiting
// form, and logs what fails.

namespace utilia::platform {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr milliseconds kUpTimeout{5000};        // until a started application is listed
constexpr milliseconds kPortTimeout{2000};      // until a listed application serves its port
constexpr milliseconds kSendTimeout{2000};      // of a launch that may wait
constexpr milliseconds kAsyncSendTimeout{100};  // of one that should not
constexpr milliseconds kRetryInterval{5};

// How long a launch waits for other launchers of the same application, and in all. In the
// background there is time to let a slow start of another launcher end, so that the arguments are
// not lost.
struct Patience {
    milliseconds lock;
    milliseconds all;
};
constexpr Patience kCaller{milliseconds(2000), kUpTimeout};
constexpr Patience kBackground{kUpTimeout + milliseconds(1000), 2 * kUpTimeout};

struct Target {
    std::string identifier;
    std::string bundlePath;
    std::string program;
    std::vector<std::string> arguments;    // that the desktop entry gives to every start
    std::vector<std::string> environment;  // of a launch
};

bool sameIdentifier(std::string_view left, std::string_view right) {
    const auto lower = [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    };
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [&](char a, char b) { return lower(a) == lower(b); });
}

Result<Target> installedTarget(std::string_view identifier) {
    auto entry = DesktopEntry::find(identifier);
    if (!entry) return std::move(entry).error();
    const auto bundle = Bundle::bundleWithPath(entry->bundlePath);
    const auto own = bundle ? bundle->bundleIdentifier() : std::nullopt;
    if (!own || !sameIdentifier(*own, identifier)) {
        return Error::utilia(UtiliaErrorCode::NotFound,
                             std::string(identifier) + ": its desktop entry leads to " +
                                 entry->bundlePath + ", which is " +
                                 own.value_or("no application with an identifier"));
    }
    return Target{.identifier = *own,
                  .bundlePath = std::move(entry->bundlePath),
                  .program = std::move(entry->program),
                  .arguments = std::move(entry->arguments),
                  .environment = {}};
}

Result<Target> targetAtPath(std::string_view path) {
    const auto no = [path](std::string_view why) {
        return Error::utilia(UtiliaErrorCode::NotFound,
                             std::string(path) + ": " + std::string(why));
    };
    const auto bundle = Bundle::bundleWithPath(path);
    if (!bundle) return no("there is no such bundle");
    const auto identifier = bundle->bundleIdentifier();
    if (!identifier || !isUsableBundleIdentifier(*identifier))
        return no("has no usable bundle identifier");
    auto program = mainProgramOfBundle(*bundle);
    if (!program) return no("has no program");
    return Target{.identifier = *identifier,
                  .bundlePath = bundle->bundlePath(),
                  .program = std::move(*program),
                  .arguments = {},
                  .environment = {}};
}

bool isRunning(const std::string& identifier) {
    return !RunningApplication::runningApplicationsWithBundleIdentifier(identifier).empty();
}

enum class Delivery { Delivered, NotRunning, NoPort };

// The port of an instance that runs from another place than the one that would be started.
std::optional<std::string> portOfOtherCopy(const Target& target) {
    const auto applications =
        RunningApplication::runningApplicationsWithBundleIdentifier(target.identifier);
    for (const auto& registration : PortNameServer::systemDefaultPortNameServer().registrations()) {
        if (!registration.isLive || !registration.name.starts_with(target.identifier + ".app."))
            continue;
        const bool listed =
            std::any_of(applications.begin(), applications.end(), [&](const auto& application) {
                return application.processIdentifier() == registration.processIdentifier;
            });
        if (listed) return registration.name;
    }
    return std::nullopt;
}

// Fails when the instance has a port, but does not take the arguments.
Result<Delivery> deliver(const Target& target, const std::vector<std::string>& arguments,
                         milliseconds timeout) {
    if (!isRunning(target.identifier)) return Delivery::NotRunning;
    auto handed = InstancePort::handOver(
        InstancePort::nameForBundle(target.identifier, target.bundlePath), arguments, timeout);
    if (!handed && handed.error().is(UtiliaErrorCode::NotFound)) {
        if (const auto other = portOfOtherCopy(target))
            handed = InstancePort::handOver(*other, arguments, timeout);
    }
    if (handed) return Delivery::Delivered;
    if (handed.error().is(UtiliaErrorCode::NotFound)) return Delivery::NoPort;
    return handed.error().withContext(target.identifier);
}

milliseconds timeUntil(Clock::time_point time) {
    const auto left = std::chrono::ceil<milliseconds>(time - Clock::now());
    return std::max(left, kAsyncSendTimeout);
}

// Asks until the instance has a port, or has ended, or the time is over (NoPort).
Result<Delivery> deliverPatiently(const Target& target, const std::vector<std::string>& arguments,
                                  Clock::time_point latest) {
    const auto deadline = std::min(latest, Clock::now() + kPortTimeout);
    for (;;) {
        auto delivery = deliver(target, arguments, timeUntil(deadline));
        if (!delivery || *delivery != Delivery::NoPort || Clock::now() >= deadline) return delivery;
        std::this_thread::sleep_for(kRetryInterval);
    }
}

Result<FileLock> launchLock(const Target& target, milliseconds timeout) {
    const auto folder = ensureRuntimeSubfolder("launch");
    if (!folder) return folder.error();
    auto lock = FileLock::acquire(*folder + "/" + target.identifier + ".lock",
                                  FileLock::Mode::Exclusive, timeout);
    if (!lock) return lock.error().withContext("launch " + target.identifier);
    return lock;
}

// What the watcher's thread and a waiting launcher share about one start.
struct Start {
    std::string identifier;
    std::string runningFolder;
    FileLock lock;
    Clock::time_point deadline = Clock::now() + kUpTimeout;
    std::promise<ChildWatcher::Status> answer;

    Start(std::string name, std::string folder, FileLock held)
        : identifier(std::move(name)), runningFolder(std::move(folder)), lock(std::move(held)) {}

    bool progress(ChildWatcher::Status status) {
        if (!status && Clock::now() < deadline &&
            listedProcesses(runningFolder, identifier).empty())
            return false;
        lock.release();
        answer.set_value(status);
        return true;
    }
};

// Starts the application and leaves child and lock to the watcher. The answer holds the end of a
// child that ended before it was listed.
Result<std::future<ChildWatcher::Status>>
start(const Target& target, const std::vector<std::string>& arguments, FileLock lock) {
    const auto folder = ensureRuntimeSubfolder("running");
    if (!folder) return folder.error().withContext("launch " + target.identifier);
    ChildInput input{target.arguments, target.environment};
    input.arguments.insert(input.arguments.end(), arguments.begin(), arguments.end());
    auto child = launchChild(target.program, input);
    if (!child) return child.error().withContext("launch " + target.identifier);
    const auto state = std::make_shared<Start>(target.identifier, *folder, std::move(lock));
    auto answer = state->answer.get_future();
    const auto watched =
        ChildWatcher::shared().watch(std::move(*child), [state](ChildWatcher::Status status) {
            return state->progress(status);
        });
    if (!watched)
        return watched.error().withContext(target.identifier + " was started, but is not watched");
    return answer;
}

Result<void> startAndWait(const Target& target, const std::vector<std::string>& arguments,
                          FileLock lock, Clock::time_point deadline) {
    auto started = start(target, arguments, std::move(lock));
    if (!started) return std::move(started).error();
    // Still on its way up, and watched.
    if (started->wait_until(deadline) != std::future_status::ready) return {};
    const ChildWatcher::Status ended = started->get();
    // An application may decline to run, which it says with status 0.
    if (!ended || *ended == 0) return {};
    return Error::utilia(UtiliaErrorCode::Unavailable, "launch " + target.identifier + ": " +
                                                           target.program + " ended with status " +
                                                           std::to_string(*ended));
}

Result<void> launchWaiting(const Target& target, const std::vector<std::string>& arguments,
                           const Patience& patience) {
    const auto deadline = Clock::now() + patience.all;
    const auto first = deliver(target, arguments, kSendTimeout);
    if (!first) return first.error();
    if (*first == Delivery::Delivered) return {};

    auto lock = launchLock(target, patience.lock);
    if (!lock && !lock.error().is(UtiliaErrorCode::Busy)) return std::move(lock).error();
    const auto second = deliverPatiently(target, arguments, deadline);
    if (!second) return second.error();
    if (*second == Delivery::Delivered) return {};
    if (*second == Delivery::NoPort) {
        // It runs, which is all that a launch without arguments asks for.
        if (arguments.empty()) return {};
        return Error::utilia(UtiliaErrorCode::Unavailable,
                             target.identifier + ": it runs, but takes no arguments");
    }
    if (!lock) return std::move(lock).error();
    return startAndWait(target, arguments, std::move(*lock), deadline);
}

Result<void> launchInBackground(Target target, std::vector<std::string> arguments) {
    try {
        std::thread([target = std::move(target), arguments = std::move(arguments)] {
            if (const auto launched = launchWaiting(target, arguments, kBackground); !launched) {
                KULogVariadic("Workspace: %@", launched.error());
            }
        }).detach();
    } catch (const std::system_error& error) {
        return Error::posix(error.code().value(), "start thread", "a launch");
    }
    return {};
}

Result<void> launchAsync(const Target& target, const std::vector<std::string>& arguments) {
    auto delivery = deliver(target, arguments, kAsyncSendTimeout);
    if (delivery && *delivery == Delivery::NotRunning) {
        auto lock = launchLock(target, milliseconds(0));
        if (!lock && !lock.error().is(UtiliaErrorCode::Busy)) return std::move(lock).error();
        if (lock) {
            delivery = deliver(target, arguments, kAsyncSendTimeout);
            if (delivery && *delivery == Delivery::NotRunning) {
                const auto started = start(target, arguments, std::move(*lock));
                return started ? Result<void>() : started.error();
            }
        }
    }
    if (!delivery) return std::move(delivery).error();
    if (*delivery == Delivery::Delivered) return {};
    return launchInBackground(target, arguments);
}

Result<void> launch(Result<Target> target, WorkspaceLaunchOptions options,
                    const std::vector<std::string>& arguments) {
    if (!target) return target.error();
    target->environment = currentEnvironment();
    // Refused here, so that an asynchronous launch says so too.
    if (const auto encoded = InstancePort::encode(arguments); !encoded) {
        return encoded.error().withContext("launch " + target->identifier);
    }
    return options == WorkspaceLaunchOptions::Async ? launchAsync(*target, arguments)
                                                    : launchWaiting(*target, arguments, kCaller);
}

}  // namespace

std::optional<std::string>
Workspace::URLForApplicationWithBundleIdentifier(std::string_view bundleIdentifier) {
    auto target = installedTarget(bundleIdentifier);
    if (target) return std::move(target->bundlePath);
    if (!target.error().is(UtiliaErrorCode::NotFound))
        KULogVariadic("Workspace: %@", target.error());
    return std::nullopt;
}

Result<std::string>
Workspace::findApplicationWithBundleIdentifier(std::string_view bundleIdentifier) {
    auto target = installedTarget(bundleIdentifier);
    if (target) return std::move(target->bundlePath);
    if (!target.error().is(UtiliaErrorCode::NotFound)) return std::move(target).error();
    const bool isNamed = DesktopEntry::isNamed(bundleIdentifier);
    return Error::utilia(isNamed ? UtiliaErrorCode::Refused : UtiliaErrorCode::NotFound,
                         target.error().description);
}

Result<void> Workspace::launchAppWithBundleIdentifier(std::string_view bundleIdentifier,
                                                      WorkspaceLaunchOptions options,
                                                      const std::vector<std::string>& arguments) {
    return launch(installedTarget(bundleIdentifier), options, arguments);
}

Result<void> Workspace::launchApplicationAtPath(std::string_view bundlePath,
                                                WorkspaceLaunchOptions options,
                                                const std::vector<std::string>& arguments) {
    return launch(targetAtPath(bundlePath), options, arguments);
}

}  // namespace utilia::platform
