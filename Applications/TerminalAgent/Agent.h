#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "Common/Foundation/Handle.h"
#include "Common/Platform/Application.h"
#include "Common/UtiliaCommon/ToolDataProvider/ToolDataAgentProvider.h"

namespace utilia::agent {

// The agent as a terminal program: prints what each tool says as it says it, and passes the user's
// commands on.
//
// The tools are those that the agent's Info.plist names ("AgentTools", bundle identifiers) and that
// are installed. Commands are the arguments of a second start, which the running agent receives as
// a reopen.
//
// Threads: the main thread.
class Agent final : public platform::ApplicationDelegate {
public:
    // Begins to watch every installed tool, and asks each for its status.
    void start();

    bool applicationShouldHandleReopen(bool hasVisibleWindows,
                                       const std::vector<std::string>& arguments) override;
    void silentUpdateResources() override;

private:
    struct Watched {
        std::shared_ptr<ToolDataAgentProvider> tool;
        Handle observation;
    };

    void watch(const std::string& bundleIdentifier);
    void execute(const std::vector<std::string>& arguments);
    // Answers whether it could be done.
    bool execute(const std::string& verb, ToolDataAgentProvider& tool);
    ToolDataAgentProvider* find(const std::string& title) const;
    void print(const std::string& line) const;
    void printEverything(const ToolDataAgentProvider& tool) const;

    std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
    std::vector<Watched> tools_;
};

}  // namespace utilia::agent
