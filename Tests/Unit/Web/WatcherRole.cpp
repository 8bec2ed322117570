#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Common/Platform/RunLoop.h"
#include "Common/UtiliaCommon/Web/HostReachability.h"
#include "Tests/Support/ChildScript.h"
#include "Tests/Support/LoadedLibraries.h"

// A process that watches one host, or none.

using namespace utilia;
using namespace utilia::platform;
using namespace utilia::test;

namespace {

using Clock = std::chrono::steady_clock;

std::string millisecondsSince(Clock::time_point start) {
    return std::to_string(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

UTILIA_CHILD_ROLE(watcher) {
    std::unique_ptr<HostReachability> host;
    int calls = 0;
    ChildScript script(self);
    const auto watched = [&](std::unique_ptr<HostReachability> made) -> std::string {
        host = std::move(made);
        calls = 0;
        if (!host) return "nil";
        host->setOnReachable([&calls] { ++calls; });
        return host->ref() ? "watched" : "without a target";
    };
    script.on("plain", [&](const auto&) { return watched(std::make_unique<HostReachability>()); });
    script.on("watch", [&](const auto& arguments) {
        return watched(HostReachability::initWithHostName(arguments[0]));
    });
    script.on("watch-url", [&](const auto& arguments) {
        return watched(HostReachability::initWithURL(arguments[0]));
    });
    script.on("milliseconds-to-watch", [&](const auto& arguments) {
        const auto start = Clock::now();
        watched(HostReachability::initWithHostName(arguments[0]));
        return millisecondsSince(start);
    });
    script.on("milliseconds-to-release", [&](const auto&) {
        const auto start = Clock::now();
        host = nullptr;
        return millisecondsSince(start);
    });
    script.on("flags", [&](const auto&) { return std::to_string(host->ref()->flags()); });
    script.on("is-reachable", [&](const auto&) { return host->isReachable() ? "yes" : "no"; });
    script.on("calls", [&](const auto&) { return std::to_string(calls); });
    script.on("wait-for-flags", [&](const auto& arguments) {
        const std::uint32_t wanted = static_cast<std::uint32_t>(std::stoul(arguments[0]));
        ChildScript::waitUntil([&] { return host->ref()->flags() == wanted; });
        return std::to_string(host->ref()->flags());
    });
    script.on("wait-for-calls", [&](const auto& arguments) {
        ChildScript::waitUntil([&] { return calls == std::stoi(arguments[0]); });
        return std::to_string(calls);
    });
    // For so many milliseconds, and until it has turned a few times; answers how long it took.
    script.on("turn-loop", [&](const auto& arguments) {
        const auto start = Clock::now();
        int turns = 0;
        const Handle timer =
            Timer::scheduledTimer(std::chrono::milliseconds(1), true, [&] { ++turns; });
        RunLoop::currentRunLoop().runFor(std::chrono::milliseconds(std::stoi(arguments[0])));
        ChildScript::waitUntil([&] { return turns > 5; });
        return millisecondsSince(start);
    });
    // The change is posted, and nobody has served the loop since.
    script.on("release-with-a-change-under-way", [&](const auto& arguments) {
        watched(HostReachability::initWithHostName(arguments[0]));
        while (!host->isReachable()) std::this_thread::yield();
        host = nullptr;
        RunLoop::currentRunLoop().runFor(std::chrono::milliseconds(50));
        return std::to_string(calls);
    });
    script.on("release-in-block", [&](const auto& arguments) {
        watched(HostReachability::initWithHostName(arguments[0]));
        const auto note = std::make_shared<std::string>("the block is whole");
        host->setOnReachable([&host, &calls, note] {
            host = nullptr;
            calls += note->size() == 18;
        });
        ChildScript::waitUntil([&] { return !host; });
        return std::to_string(calls);
    });
    script.on("replace-block-in-block", [&](const auto& arguments) {
        watched(HostReachability::initWithHostName(arguments[0]));
        const auto note = std::make_shared<std::string>("the block is whole");
        host->setOnReachable([&host, &calls, note] {
            host->setOnReachable([&calls] { calls += 100; });
            calls += note->size() == 18;
        });
        ChildScript::waitUntil([&] { return calls != 0; });
        host->onReachable()();
        return std::to_string(calls);
    });
    script.on("throw-in-block", [&](const auto& arguments) {
        watched(HostReachability::initWithHostName(arguments[0]));
        host->setOnReachable([&calls] {
            ++calls;
            throw std::runtime_error("of the block");
        });
        ChildScript::waitUntil([&] { return calls != 0; });
        return std::to_string(calls);
    });
    // Four threads, each with hosts and a loop of its own.
    script.on("watch-on-threads", [&](const auto& arguments) {
        std::atomic<int> reached = 0;
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&] {
                for (int round = 0; round < 10; ++round) {
                    bool isCalled = false;
                    const auto own = HostReachability::initWithHostName(arguments[0]);
                    const auto ended = HostReachability::initWithHostName(arguments[0]);
                    own->setOnReachable([&, thread = std::this_thread::get_id()] {
                        isCalled = thread == std::this_thread::get_id();
                    });
                    ChildScript::waitUntil([&] { return isCalled; });
                    reached += isCalled;
                }
            });
        }
        for (std::thread& thread : threads) thread.join();
        return std::to_string(reached.load());
    });
    // Ends the watch of its parent, and tries one of its own.
    script.on("fork", [&](const auto& arguments) {
        const pid_t child = fork();
        if (child == 0) {
            host = nullptr;
            _exit(HostReachability::initWithHostName(arguments[0]) ? 1 : 0);
        }
        int status = 0;
        waitpid(child, &status, 0);
        return std::to_string(status);
    });
    script.on("limit-descriptors", [&](const auto& arguments) {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = std::stoul(arguments[0]);
        setrlimit(RLIMIT_NOFILE, &limit);
        return "";
    });
    script.on("module",
              [](const auto&) { return isLoaded("Desktop.so") ? "loaded" : "not loaded"; });
    return script.run();
}

}  // namespace
