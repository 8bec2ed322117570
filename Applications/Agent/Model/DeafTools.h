#pragma once

#include <chrono>
#include <functional>
#include <set>
#include <string>
#include <utility>

#include "Common/Foundation/Handle.h"
#include "Common/Platform/RunLoop.h"

namespace utilia::agent {

// The tools that do not respond: they run, and have no room for what they are told.
//
// A tool that reads again may have nothing to say, and its port tells nobody that there is room. So as long as there are
// such tools, and no longer, each is looked at once in kInterval; nothing is sent for it.
//
// Threads: the agent's main thread, whose loop looks.
class DeafTools final {
public:
    struct Actions {
        // Whether the tool runs and has no room now.
        std::function<bool(const std::string& identifier)> isDeaf;
        // It was, and is not any more, as was found out by looking.
        std::function<void(const std::string& identifier)> hearsAgain;
        // identifiers() are others than before.
        std::function<void()> changed;
    };
    using Every =
        std::function<Handle(std::chrono::nanoseconds interval, std::function<void()> call)>;
    static constexpr std::chrono::seconds kInterval{1};

    explicit DeafTools(Actions actions)
        : DeafTools(std::move(actions), [](std::chrono::nanoseconds interval, auto call) {
              return platform::Timer::scheduledTimer(interval, true, std::move(call));
          }) {}
    DeafTools(Actions actions, Every every)
        : actions_(std::move(actions)), every_(std::move(every)) {}
    DeafTools(const DeafTools&) = delete;
    DeafTools& operator=(const DeafTools&) = delete;

    const std::set<std::string>& identifiers() const { return identifiers_; }

    // The tool did not take in time what was kept for it. Answers whether it is deaf; one that has ended is not, and neither
    // is one that has room by now.
    bool hasNotTaken(const std::string& identifier);
    // The tool has spoken, has taken something, or has ended.
    void forget(const std::string& identifier);

private:
    void look();

    const Actions actions_;
    const Every every_;
    std::set<std::string> identifiers_;
    Handle timer_;
};

}  // namespace utilia::agent
