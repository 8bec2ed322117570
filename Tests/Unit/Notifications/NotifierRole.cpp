#include <chrono>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Common/Platform/DistributedNotificationCenter.h"
#include "Common/Platform/Linux/NotificationPatience.h"
#include "Common/Platform/RunLoop.h"
#include "Tests/Support/ChildScript.h"
#include "Tests/Support/LoadedLibraries.h"
#include "Tests/Support/TestLog.h"

// Processes that post and observe.

using namespace utilia;
using namespace utilia::platform;
using namespace utilia::test;

namespace {

using Clock = std::chrono::steady_clock;

std::string millisecondsOf(const std::function<void()>& work) {
    const auto start = Clock::now();
    work();
    return std::to_string(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

struct Observation {
    int calls = 0;
    bool wasOnMainThread = true;
    Handle handle;
};

// "observe" NAME ID, "end" ID, "calls" ID, "wait" ID CALLS, "post" NAME and so on; those that may
// wait answer the milliseconds that they took. An argument is the patience from the beginning.
UTILIA_CHILD_ROLE(notifier) {
    const auto setPatience = [](const std::string& milliseconds) {
        notificationPatience() = static_cast<std::uint32_t>(std::stoul(milliseconds));
    };
    if (!self.arguments.empty()) setPatience(self.arguments[0]);
    std::map<std::string, Observation> observations;
    const auto mainThread = std::this_thread::get_id();
    auto& center = DistributedNotificationCenter::defaultCenter();
    ChildScript script(self);
    const auto observe = [&](const std::string& name, const std::string& id) {
        Observation& made = observations[id];
        made.handle = center.addObserver(name, [&made, mainThread] {
            ++made.calls;
            made.wasOnMainThread &= std::this_thread::get_id() == mainThread;
        });
    };
    script.on("set-patience", [&](const auto& arguments) {
        setPatience(arguments[0]);
        return "";
    });
    script.on("observe", [&](const auto& arguments) {
        return millisecondsOf([&] { observe(arguments[0], arguments[1]); });
    });
    script.on("observe-on-another-thread", [&](const auto& arguments) {
        std::thread([&] { observe(arguments[0], arguments[1]); }).join();
        return "";
    });
    script.on("observe-and-throw", [&](const auto& arguments) {
        static Handle handle;
        handle = center.addObserver(arguments[0], [] { throw std::runtime_error("observer"); });
        return "";
    });
    script.on("end", [&](const auto& arguments) {
        observations[arguments[0]].handle.reset();
        return "";
    });
    script.on("calls", [&](const auto& arguments) {
        const Observation& observation = observations[arguments[0]];
        return std::to_string(observation.calls) +
               (observation.wasOnMainThread ? "" : " elsewhere");
    });
    script.on("wait", [&](const auto& arguments) {
        const Observation& observation = observations[arguments[0]];
        ChildScript::waitUntil([&] { return observation.calls >= std::stoi(arguments[1]); });
        return std::to_string(observation.calls);
    });
    script.on("post", [&](const auto& arguments) {
        return millisecondsOf([&] { center.post(arguments[0]); });
    });
    // Answers whether an observer was called before the post returned.
    script.on("post-and-look", [&](const auto& arguments) {
        const int before = observations[arguments[1]].calls;
        center.post(arguments[0]);
        return observations[arguments[1]].calls == before ? "later" : "at once";
    });
    script.on("post-from-threads", [&](const auto& arguments) {
        std::vector<std::thread> threads;
        for (int i = 0; i < std::stoi(arguments[1]); ++i) {
            threads.emplace_back([&] {
                for (int j = 0; j < std::stoi(arguments[2]); ++j) center.post(arguments[0]);
            });
        }
        for (auto& thread : threads) thread.join();
        return "";
    });
    // The main loop does not turn until the test lets it.
    script.on("hold-main-loop-until", [&](const auto& arguments) {
        while (access(arguments[0].c_str(), F_OK) != 0) usleep(1000);
        return "";
    });
    script.on("is-loaded",
              [](const auto& arguments) { return isLoaded(arguments[0]) ? "yes" : "no"; });
    // Answers how long it took, or how the child ended where that was not in order.
    script.on("post-in-forked-child", [&](const auto& arguments) {
        int status = 0;
        const std::string time = millisecondsOf([&] {
            const pid_t child = fork();
            if (child == 0) {
                center.post(arguments[0]);
                _exit(0);
            }
            if (child < 0 || waitpid(child, &status, 0) != child) status = -1;
        });
        return status == 0 ? time : "the child ended with " + std::to_string(status);
    });
    script.on("take-all-descriptors", [](const auto&) {
        // Bounded, so that using them up is quick.
        const rlimit limit{256, 256};
        setrlimit(RLIMIT_NOFILE, &limit);
        while (open("/dev/null", O_RDONLY | O_CLOEXEC) >= 0) {
        }
        return "";
    });
    return script.run();
}

// Posts and ends at once.
UTILIA_CHILD_ROLE(postAndExit) {
    notificationPatience() = static_cast<std::uint32_t>(std::stoul(self.arguments[1]));
    DistributedNotificationCenter::defaultCenter().post(self.arguments[0]);
    _exit(0);
}

}  // namespace
