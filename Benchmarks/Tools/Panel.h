#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include "Benchmarks/Messages/BusConnection.h"

namespace utilia::bench {

// What a desktop's panel is to the agent: it hosts the status icon and is told of the menu's changes.
// It also asks for the list of tools, as any program of the session may.
class Panel final {
public:
    explicit Panel(const std::string& busAddress);

    // Takes what the bus has for it, for so long.
    void serve(double seconds);
    // Until it is so; fails after 20 s.
    void serveUntil(const std::function<bool()>& done);

    // How many tools of the agent's list run and have this text; none while there is no agent.
    std::size_t toolsThatSay(const std::string& text);
    // Whether the tool of this identifier runs, as the agent has it.
    bool runs(const std::string& identifier);

    std::size_t updates() const { return updates_; }  // messages of changes of the menu

private:
    struct Tool {
        std::string identifier;
        std::string text;
        bool isRunning = false;
    };
    // Calls back for each tool of the list.
    void forEachTool(const std::function<void(const Tool&)>& body);
    bool step(std::uint64_t microseconds);
    static int onRegister(sd_bus_message* message, void* data, sd_bus_error* error);
    static int onChange(sd_bus_message* message, void* data, sd_bus_error* error);

    BusPointer bus_;
    std::size_t updates_ = 0;
};

}  // namespace utilia::bench
