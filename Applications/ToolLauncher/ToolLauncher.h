#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "Common/UtiliaCommon/AdminSettings/ToolSets.h"

namespace utilia::launcher {

// Starts the tools that the user wants at login (UtiliaToolLauncher's list), in the list's order.
//
// Tools that run, that are not installed, or that the administrator does not allow are passed over,
// with one log line each. When one of the rest needs the agent, the agent is started first and its
// port waited for, so that no tool has to ask the user about it. When the agent cannot be started,
// the tools that need it are passed over as well.
//
// A login has more to do than to start fifty tools. So only a few are on their way up at the same
// time: the next one is started when one of them is listed as running, has ended, or has taken five
// seconds.
//
// Threads: any; one run() at a time.
class ToolLauncher final {
public:
    struct Limits {
        std::size_t launchesAtOnce = 4;
        std::chrono::milliseconds agentWait{5000};  // until its port is there
    };
    enum class Fate { Start, Running, NotInstalled, Restricted };
    struct Step {
        std::string bundleIdentifier;
        Fate fate = Fate::Start;
        bool needsAgent = false;

        friend bool operator==(const Step&, const Step&) = default;
    };

    // Without tool sets every tool is allowed.
    explicit ToolLauncher(std::shared_ptr<const ToolSets> toolSets = nullptr)
        : ToolLauncher(std::move(toolSets), Limits()) {}
    ToolLauncher(std::shared_ptr<const ToolSets> toolSets, Limits limits)
        : toolSets_(std::move(toolSets)), limits_(limits) {}

    // What run() would do now, a step for each tool of the list.
    std::vector<Step> plan() const;

    // Returns when every tool has been started or passed over.
    void run();
    // From any thread: nothing more is started, which is logged unless there was nothing more.
    // run() returns when the launches that are under way are over.
    void stop();

private:
    void setAtWork(bool isAtWork);
    bool isStopped();
    bool prepareAgent();
    void startTools(const std::vector<std::string>& tools);

    bool isRestricted(const std::string& tool) const;
    Step stepFor(const std::string& tool) const;

    const std::shared_ptr<const ToolSets> toolSets_;
    const Limits limits_;
    std::mutex mutex_;
    std::condition_variable stopping_;
    bool isStopped_ = false;  // guarded by mutex_
    bool isAtWork_ = false;   // guarded by mutex_
};

}  // namespace utilia::launcher
